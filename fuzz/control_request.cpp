// One line that a monitor sends.
#include <set>
#include <utility>

#include "core/control/control_request.h"
#include "core/fan/profile.h"
#include "fuzz/curve_properties.h"
#include "fuzz/input.h"
#include "fuzz/json_properties.h"

namespace {

using namespace ferovane;
using fuzzing::require;

bool oneOf(std::optional<std::int64_t> value, const std::set<std::int64_t>& choices) {
    return !value || choices.contains(*value);
}

void checkPlan(const PowerOptimizationPlan& plan) {
    require(oneOf(plan.displayMinutes, {2, 5, 10}), "admitted display minutes are offered ones");
    require(oneOf(plan.idleMinutes, {5, 10, 15}), "admitted idle minutes are offered ones");
    std::set<std::pair<PowerSource, PowerSetting>> pairs;
    for (const PowerTarget& target : plan.targets()) {
        require(valid(target.key, target.value), "admitted targets are in their ranges");
        require(pairs.emplace(target.source, target.key).second, "no setting has two targets");
    }
    if (plan.expected) {
        for (const PowerEdit& edit : plan.edits(*plan.expected)) {
            require(edit.before != edit.after, "an edit changes something");
        }
    }
}

void checkBackup(const PowerBackup& backup) {
    std::set<std::pair<PowerSource, PowerSetting>> pairs;
    for (const PowerEdit& edit : backup.edits) {
        require(valid(edit.key, edit.before) && valid(edit.key, edit.after),
                "an admitted backup holds settings in their ranges");
        require(pairs.emplace(edit.source, edit.key).second, "a backup holds no setting twice");
    }
    require(oneOf(backup.turboBefore, {0, 1}), "an admitted turbo state is 0 or 1");
}

void checkAdmitted(const ControlRequest& request) {
    const auto command = fromRawValue<ControlCommand>(request.command);
    require(command.has_value(), "an admitted command is known");
    require(!request.duration || (*request.duration > 0 && *request.duration <= 1800),
            "an admitted duration is at most half an hour");
    require(!request.label || request.label->size() <= 80, "an admitted label is short");
    require(request.powerPlan.has_value() == (command == ControlCommand::powerOptimize),
            "a power plan comes with its command and with no other");
    require(request.powerBackup.has_value() == (command == ControlCommand::powerRestore),
            "a backup comes with its command and with no other");
    if (command == ControlCommand::profile) {
        const auto profile = profileNamed(request.profile.value_or(""));
        require(profile.has_value(), "an admitted profile is known");
        if (profile == Profile::custom) {
            fuzzing::checkAdmittedCurve(request.curve.value());
        }
    }
    if (request.powerPlan) {
        checkPlan(*request.powerPlan);
    }
    if (request.powerBackup) {
        checkBackup(*request.powerBackup);
    }
}

bool admits(const ControlRequest& request) {
    try {
        request.validate();
        return true;
    } catch (const ScopeError& error) {
        fuzzing::checkRefusal(error);
        return false;
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto request = fuzzing::decodeChecked<ControlRequest>(fuzzing::textOf(data, size));
    if (!request) {
        return 0;
    }
    const std::string text = encodeJson(*request);
    require(!fuzzing::accepts<ControlRequest>("{\"command\":\"auto\"," + text.substr(1),
                                              JsonDates::secondsSinceReference),
            "a request whose command stands twice is refused");
    const bool admitted = admits(*request);
    if (admitted) {
        checkAdmitted(*request);
    }
    require(admits(decodeJson<ControlRequest>(text)) == admitted,
            "a request is admitted or refused alike after another journey");
    return 0;
}
