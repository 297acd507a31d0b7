// One complete sample of the machine's thermal and performance state. Plain values.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "core/model/date.h"
#include "core/model/hardware_sensor.h"
#include "core/model/json_fields.h"
#include "core/model/raw_enum.h"

namespace ferovane {

enum class SensorCategory { cpu, gpu, storage, battery, other };
SensorCategory sensorCategory(std::string_view key);  // by the key's first two characters

struct SensorReading {
    std::string key;    // four characters
    std::string label;  // what a user reads
    double celsius = 0;

    const std::string& id() const { return key; }
    SensorCategory category() const { return sensorCategory(key); }
    bool operator==(const SensorReading&) const = default;

    static constexpr auto jsonFields() {
        using R = SensorReading;
        return std::tuple{jsonField("key", &R::key), jsonField("label", &R::label),
                          jsonField("celsius", &R::celsius)};
    }
};

// Speeds in revolutions per minute, each absent when its key gives no finite number.
struct FanReading {
    int id = 0;  // fan index from 0
    std::optional<double> rpm, minimum, maximum;
    std::optional<bool> manual;  // false: system automatic; absent: the mode cannot be told
    bool controllable = false;   // target readable, and 0 < maximum <= 12000

    bool operator==(const FanReading&) const = default;

    static constexpr auto jsonFields() {
        using R = FanReading;
        constexpr JsonNote speed{"revolutions per minute"};
        return std::tuple{jsonField("id", &R::id, JsonNote{"fan index from 0"}),
                          jsonField("rpm", &R::rpm, speed),
                          jsonField("minimum", &R::minimum, speed),
                          jsonField("maximum", &R::maximum, speed),
                          jsonField("manual", &R::manual,
                                    JsonNote{"false: system automatic; absent: it cannot be told"}),
                          jsonField("controllable", &R::controllable)};
    }
};

enum class TurboState { disabledDriverLoaded, driverNotLoaded, unknown, unsupported };
std::string_view title(TurboState state);

enum class MemoryPressure { normal = 1, warning = 2, critical = 4 };
std::string_view title(MemoryPressure pressure);

// Cumulative processor ticks, wrapping at 32 bits.
struct CPUCounters {
    std::uint32_t user = 0, system = 0, idle = 0, nice = 0;

    // Busy percentage, 0 to 100, between `previous` and this; 0 when no tick has passed.
    double usage(const CPUCounters& previous) const;
    bool operator==(const CPUCounters&) const = default;
};

struct Snapshot {
    Date date;                       // when the sample was taken
    std::optional<double> cpuUsage;  // percent; absent on the first sample
    std::vector<SensorReading> sensors;
    std::vector<FanReading> fans;                   // by fan index
    std::optional<int> speedLimit, schedulerLimit;  // percent, 100 means unlimited
    std::optional<int> availableCPUs;
    int totalCPUs = 0;
    int thermalState = 0;  // 0 nominal, 1 fair, 2 serious, 3 critical, else unknown
    std::optional<int> thermalWarning;
    TurboState turbo = TurboState::unknown;
    std::optional<bool> acPower;
    bool lowPower = false;
    bool smcAvailable = false;
    std::optional<MemoryPressure> memoryPressure;
    std::optional<std::vector<HardwareSensorReading>> additionalSensors;

    Date id() const { return date; }

    // The hottest reading of a category; NaN does not count. Absent without one.
    std::optional<double> temperature(SensorCategory category) const;
    std::optional<double> cpuTemperature() const { return temperature(SensorCategory::cpu); }

    bool limited() const;     // some known limit is below its full value
    bool limitKnown() const;  // all three limits are known
    std::string_view limitTitle() const;
    std::string_view thermalTitle() const;
    std::string_view assessment() const;  // one sentence on what the limits do and do not show

    bool operator==(const Snapshot&) const = default;

    static constexpr auto jsonFields() {
        using R = Snapshot;
        constexpr JsonNote limit{"percent, 100 means unlimited"};
        return std::tuple{
            jsonField("date", &R::date),
            jsonField("cpuUsage", &R::cpuUsage, JsonNote{"percent"}),
            jsonField("sensors", &R::sensors),
            jsonField("fans", &R::fans),
            jsonField("speedLimit", &R::speedLimit, limit),
            jsonField("schedulerLimit", &R::schedulerLimit, limit),
            jsonField("availableCPUs", &R::availableCPUs),
            jsonField("totalCPUs", &R::totalCPUs),
            jsonField("thermalState", &R::thermalState,
                      JsonNote{"0 nominal, 1 fair, 2 serious, 3 critical, else unknown"}),
            jsonField("thermalWarning", &R::thermalWarning),
            jsonField("turbo", &R::turbo),
            jsonField("acPower", &R::acPower),
            jsonField("lowPower", &R::lowPower),
            jsonField("smcAvailable", &R::smcAvailable),
            jsonField("memoryPressure", &R::memoryPressure,
                      JsonNote{"1 normal, 2 warning, 4 critical"}),
            jsonField("additionalSensors", &R::additionalSensors)};
    }
};

template <>
struct RawEnum<SensorCategory> {
    static constexpr std::array<RawCase<SensorCategory>, 5> cases{{
        {SensorCategory::cpu, "CPU"},
        {SensorCategory::gpu, "GPU"},
        {SensorCategory::storage, "存储"},
        {SensorCategory::battery, "电池"},
        {SensorCategory::other, "其他"},
    }};
};

template <>
struct RawEnum<TurboState> {
    static constexpr std::array<RawCase<TurboState>, 4> cases{{
        {TurboState::disabledDriverLoaded, "disabledDriverLoaded"},
        {TurboState::driverNotLoaded, "driverNotLoaded"},
        {TurboState::unknown, "unknown"},
        {TurboState::unsupported, "unsupported"},
    }};
};

template <>
struct RawEnum<MemoryPressure> {
    static constexpr std::array<RawCase<MemoryPressure, int>, 3> cases{{
        {MemoryPressure::normal, 1},
        {MemoryPressure::warning, 2},
        {MemoryPressure::critical, 4},
    }};
};

}  // namespace ferovane
