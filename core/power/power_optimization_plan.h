// What the monitor proposes to change, and the checks of a proposal against the machine.
#pragma once

#include <cstdint>
#include <optional>
#include <tuple>
#include <vector>

#include "core/model/json_fields.h"
#include "core/power/power_configuration.h"
#include "core/power/power_settings.h"

namespace ferovane {

// A value that a plan wants to see in one setting.
struct PowerTarget {
    PowerSource source;
    PowerSetting key;
    std::int64_t value;

    bool operator==(const PowerTarget&) const = default;
};

struct PowerOptimizationPlan {
    PowerSource source = PowerSource::ac;  // the source the plan was made for
    PowerScope scope = PowerScope::current;
    bool lowPower = false;                                      // switch low-power mode on
    std::optional<std::int64_t> displayMinutes = std::nullopt;  // minutes
    std::optional<std::int64_t> idleMinutes = std::nullopt;     // minutes
    bool disableTurbo = false;
    // The reading that the plan was made from.
    std::optional<PowerConfiguration> expected = std::nullopt;

    // The steps offered to the user, in minutes: far fewer than the system would take.
    static constexpr JsonChoices<3> kDisplayChoices{{2, 5, 10}};
    static constexpr JsonChoices<3> kIdleChoices{{5, 10, 15}};

    // Throws unless the minutes are among the choices offered.
    void validate() const;

    // In the order in which they are applied. Turbo has no target.
    std::vector<PowerTarget> targets() const;

    // What has to change to get from a reading to the targets; a target that is already met, or
    // whose setting cannot be read, gives no edit.
    std::vector<PowerEdit> edits(const PowerConfiguration& configuration) const;

    // Throws unless the plan is valid, every target's setting can be read, and, when `expected` is
    // given, each of them still has the value that was expected.
    void requireReadable(const PowerConfiguration& configuration) const;

    bool operator==(const PowerOptimizationPlan&) const = default;

    static constexpr auto jsonFields() {
        using R = PowerOptimizationPlan;
        return std::tuple{jsonField("source", &R::source),
                          jsonField("scope", &R::scope),
                          jsonField("lowPower", &R::lowPower),
                          jsonField("displayMinutes", &R::displayMinutes, kDisplayChoices),
                          jsonField("idleMinutes", &R::idleMinutes, kIdleChoices),
                          jsonField("disableTurbo", &R::disableTurbo),
                          jsonField("expected", &R::expected)};
    }
};

}  // namespace ferovane
