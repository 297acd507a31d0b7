// What a monitor may ask of a session.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>

#include "core/control/request_id.h"
#include "core/fan/fan_curve.h"
#include "core/fan/fan_keys.h"
#include "core/fan/profile.h"
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

struct ControlRequest {
    std::string command;  // any text, so that an unknown word is refused by name, not as malformed
    std::optional<std::string> profile = std::nullopt;  // a profile's command word
    std::optional<FanCurve> curve = std::nullopt;       // with the profile "custom"
    std::optional<double> duration = std::nullopt;      // seconds
    std::optional<std::string> label = std::nullopt;    // what the monitor calls the mode
    std::optional<PowerOptimizationPlan> powerPlan = std::nullopt;  // with "power-optimize" only
    std::optional<PowerBackup> powerBackup = std::nullopt;          // with "power-restore" only
    std::optional<RequestId> id = std::nullopt;  // the monitor's own; asks for the reply's code

    static constexpr JsonRange kDuration{
        .least = 0, .most = FanLimits::kLeaseSeconds, .aboveLeast = true};
    static constexpr JsonBytes kLabel{80};  // 26 Chinese characters
    static constexpr JsonBytes kId{64};     // of one that is text

    // What `command` says; throws ScopeError when that is none of the ten words.
    ControlCommand knownCommand() const;

    // Throws a ScopeError with the first rule that the request breaks. Looks at nothing but the
    // request; members that its command does not use are allowed, except the two of power.
    void validate() const;

    bool operator==(const ControlRequest&) const = default;

    static constexpr auto jsonFields() {
        using R = ControlRequest;
        const auto command = [](ControlCommand word) {
            return JsonCondition{"command", rawValue(word)};
        };
        const JsonCondition profile = command(ControlCommand::profile);
        const JsonCondition custom{"profile", commandWord(Profile::custom)};
        return std::tuple{
            jsonField("command", &R::command, jsonWordsOf<ControlCommand>()),
            jsonField("profile", &R::profile, JsonNeeded<1>{{profile}}, kProfileWords),
            jsonField("curve", &R::curve, JsonNeeded<2>{{profile, custom}}),
            jsonField("duration", &R::duration, kDuration, JsonNote{"seconds"}),
            jsonField("label", &R::label, kLabel, JsonNote{"what the monitor calls the mode"}),
            jsonField("powerPlan", &R::powerPlan,
                      JsonNeeded<1>{{command(ControlCommand::powerOptimize)}, true}),
            jsonField("powerBackup", &R::powerBackup,
                      JsonNeeded<1>{{command(ControlCommand::powerRestore)}, true}),
            jsonField("id", &R::id, kId,
                      JsonNote{"the monitor's own; asks for it and a code in the reply"})};
    }
};

// The id in a request's line, whatever else is wrong with the line; absent when it has none, or
// none that a reply could repeat.
std::optional<RequestId> requestIdIn(std::string_view line);

}  // namespace ferovane
