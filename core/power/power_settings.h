// The power sources and settings that may be read and changed, and what the system's tool calls
// them.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>

#include "core/model/json_fields.h"
#include "core/model/raw_enum.h"

namespace ferovane {

enum class PowerSource { ac, battery };
std::string_view title(PowerSource source);         // what a user reads
std::string_view toolArgument(PowerSource source);  // "-c" or "-b"

// The raw value is also the tool's own name for the setting.
enum class PowerSetting { lowPowerMode, displaySleep, systemSleep };
std::string_view title(PowerSetting setting);

// Low-power mode: 0 or 1. Sleep times: 0 to 240 minutes, of which 0 means never.
constexpr JsonRange rangeOf(PowerSetting setting) {
    constexpr double kMaximumSleepMinutes = 240;  // the longest the settings panel ever offered
    return {0, setting == PowerSetting::lowPowerMode ? 1 : kMaximumSleepMinutes};
}
constexpr bool valid(PowerSetting setting, std::int64_t value) {
    return rangeOf(setting).admits(static_cast<double>(value));
}

// Where an optimisation applies low-power mode: to the plan's own source, or always to the battery.
enum class PowerScope { current, batteryAutomatic };

template <>
struct RawEnum<PowerSource> {
    static constexpr std::array<RawCase<PowerSource>, 2> cases{{
        {PowerSource::ac, "ac"},
        {PowerSource::battery, "battery"},
    }};
};

template <>
struct RawEnum<PowerSetting> {
    static constexpr std::array<RawCase<PowerSetting>, 3> cases{{
        {PowerSetting::lowPowerMode, "lowpowermode"},
        {PowerSetting::displaySleep, "displaysleep"},
        {PowerSetting::systemSleep, "sleep"},
    }};
};

template <>
struct RawEnum<PowerScope> {
    static constexpr std::array<RawCase<PowerScope>, 2> cases{{
        {PowerScope::current, "current"},
        {PowerScope::batteryAutomatic, "batteryAutomatic"},
    }};
};

// One change of one power setting on one source.
struct PowerEdit {
    PowerSource source = PowerSource::ac;
    PowerSetting key = PowerSetting::lowPowerMode;
    std::int64_t before = 0;  // read before the change
    std::int64_t after = 0;   // to be written

    // "battery:sleep": a list holds at most one edit of each pair.
    std::string id() const;

    bool operator==(const PowerEdit&) const = default;

    static constexpr auto jsonFields() {
        using R = PowerEdit;
        constexpr JsonRangeBy<PowerSetting> range{"key", rangeOf};
        constexpr JsonNote unit{"low-power mode: 0 or 1; sleep times: minutes, 0 means never"};
        return std::tuple{jsonField("source", &R::source), jsonField("key", &R::key),
                          jsonField("before", &R::before, range, unit),
                          jsonField("after", &R::after, range, unit)};
    }
};

}  // namespace ferovane
