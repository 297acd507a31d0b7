// What a monitor may ask of a session.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>

#include "core/fan/fan_curve.h"
#include "core/model/json_fields.h"
#include "core/model/raw_enum.h"
#include "core/power/power_optimization_plan.h"
#include "core/power/power_transaction.h"

namespace ferovane {

enum class ControlCommand {
    hello,
    status,
    profile,
    automatic,
    turboDisable,
    turboEnable,
    testFans,
    shutdown,
    powerOptimize,
    powerRestore,
};

template <>
struct RawEnum<ControlCommand> {
    static constexpr std::array<RawCase<ControlCommand>, 10> cases{{
        {ControlCommand::hello, "hello"},
        {ControlCommand::status, "status"},
        {ControlCommand::profile, "profile"},
        {ControlCommand::automatic, "auto"},
        {ControlCommand::turboDisable, "turbo-disable"},
        {ControlCommand::turboEnable, "turbo-enable"},
        {ControlCommand::testFans, "test-fans"},
        {ControlCommand::shutdown, "shutdown"},
        {ControlCommand::powerOptimize, "power-optimize"},
        {ControlCommand::powerRestore, "power-restore"},
    }};
};

inline constexpr std::size_t kMaxModeLabelBytes = 80;  // in UTF-8: 26 Chinese characters

struct ControlRequest {
    std::string command;  // any text, so that an unknown word is refused by name, not as malformed
    std::optional<std::string> profile = std::nullopt;  // a profile's command word
    std::optional<FanCurve> curve = std::nullopt;       // with the profile "custom"
    std::optional<double> duration = std::nullopt;      // seconds
    std::optional<std::string> label = std::nullopt;    // what the monitor calls the mode
    std::optional<PowerOptimizationPlan> powerPlan = std::nullopt;  // with "power-optimize" only
    std::optional<PowerBackup> powerBackup = std::nullopt;          // with "power-restore" only

    // What `command` says; throws ScopeError when that is none of the ten words.
    ControlCommand knownCommand() const;

    // Throws a ScopeError with the first rule that the request breaks. Looks at nothing but the
    // request; members that its command does not use are allowed, except the two of power.
    void validate() const;

    bool operator==(const ControlRequest&) const = default;

    static constexpr auto jsonFields() {
        using R = ControlRequest;
        return std::tuple{jsonField("command", &R::command),
                          jsonField("profile", &R::profile),
                          jsonField("curve", &R::curve),
                          jsonField("duration", &R::duration),
                          jsonField("label", &R::label),
                          jsonField("powerPlan", &R::powerPlan),
                          jsonField("powerBackup", &R::powerBackup)};
    }
};

}  // namespace ferovane
