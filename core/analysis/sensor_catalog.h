// What a raw controller key may be called in front of a user.
//
// Key names mean different things on different machines. The catalogue names only what is known:
// an unknown key has no meaning rather than a guessed one, a probe near the memory says nothing
// about its use, and several processor probes are not several cores.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/model/hardware_sensor.h"
#include "core/model/raw_enum.h"

namespace ferovane {

// ---- Families of machines that name their sensor keys alike
// --------------------------------------

enum class SensorNamingPlatform {
    generic,       // every machine not listed below
    appleM4,       // Apple M4
    appleM4ProMax  // Apple M4 Pro and M4 Max
};

// From a processor's brand string; white space around it does not count, upper and lower case do.
SensorNamingPlatform detectNamingPlatform(std::string_view cpuBrand);

// This machine's, found out at the first call and kept. Generic when the kernel does not tell.
// Any thread.
SensorNamingPlatform currentNamingPlatform();

// ---- The parts of a machine that a sensor can belong to
// ------------------------------------------

enum class SensorComponent { cpu, gpu, memory, storage, battery, wireless, fan, power, unknown };

std::string_view title(SensorComponent component);

template <>
struct RawEnum<SensorComponent> {
    static constexpr std::array<RawCase<SensorComponent>, 9> cases{{
        {SensorComponent::cpu, "cpu"},
        {SensorComponent::gpu, "gpu"},
        {SensorComponent::memory, "memory"},
        {SensorComponent::storage, "storage"},
        {SensorComponent::battery, "battery"},
        {SensorComponent::wireless, "wireless"},
        {SensorComponent::fan, "fan"},
        {SensorComponent::power, "power"},
        {SensorComponent::unknown, "unknown"},
    }};
};

// In the order in which a view lists them. A component's id is its raw value.
inline constexpr auto kAllSensorComponents = [] {
    std::array<SensorComponent, RawEnum<SensorComponent>::cases.size()> all{};
    for (std::size_t i = 0; i < all.size(); ++i) {
        all[i] = RawEnum<SensorComponent>::cases[i].value;
    }
    return all;
}();

// ---- The catalogue ----------------------------------------------------------------------------

// The texts are part of the program and never go away.
struct SensorMeaning {
    SensorComponent component = SensorComponent::unknown;
    std::string_view title;        // a few characters
    std::string_view explanation;  // one sentence

    bool operator==(const SensorMeaning&) const = default;
};

// One row of the short list that a user sees first.
struct CommonSensorReading {
    std::string id;  // unique in one list and the same in every list
    std::string title, explanation;
    HardwareSensorKind kind = HardwareSensorKind::temperature;
    std::optional<double> value;       // in the unit of the kind
    std::vector<std::string> sources;  // the keys folded into this row

    bool operator==(const CommonSensorReading&) const = default;
};

namespace SensorCatalog {

// Absent when the key is not catalogued for its kind on that platform.
std::optional<SensorMeaning> meaning(const HardwareSensorReading& reading,
                                     SensorNamingPlatform platform);

// The hottest probe of processor, graphics, memory and storage, then every fan, then the power of
// the whole machine; what no reading tells has no row. A value that is not finite counts as absent.
std::vector<CommonSensorReading> common(std::span<const HardwareSensorReading> readings,
                                        SensorNamingPlatform platform);

// The title of a component's row of temperature; empty for one without such a row.
std::string_view temperatureTitle(SensorComponent component);

}  // namespace SensorCatalog
}  // namespace ferovane
