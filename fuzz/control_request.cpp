// One line that a monitor sends.
#include "core/control/control_request.h"

#include <set>
#include <utility>

#include "core/fan/profile.h"
#include "fuzz/json_properties.h"

namespace {

using namespace ferovane;
using fuzzing::require;

void checkAdmitted(const ControlRequest& request) {
    const ControlCommand command = request.knownCommand();
    require(!request.duration || (*request.duration > 0 && *request.duration <= 1800),
            "an admitted duration is at most half an hour");
    require(!request.label || request.label->size() <= 80, "an admitted label is short");
    require(request.powerPlan.has_value() == (command == ControlCommand::powerOptimize) &&
                request.powerBackup.has_value() == (command == ControlCommand::powerRestore),
            "a power plan and a backup come with their commands and with no other");
    if (command == ControlCommand::profile) {
        const auto profile = profileNamed(request.profile.value_or(""));
        require(profile.has_value(), "an admitted profile is known");
        if (profile == Profile::custom) {
            fuzzing::checkAdmittedCurve(request.curve.value());
        }
    }
    std::set<std::pair<PowerSource, PowerSetting>> pairs;
    const auto check = [&](PowerSource source, PowerSetting key, std::int64_t value) {
        require(valid(key, value), "what is to be written is in its range");
        require(pairs.emplace(source, key).second, "nothing is written twice");
    };
    if (request.powerPlan) {
        for (const PowerTarget& target : request.powerPlan->targets()) {
            check(target.source, target.key, target.value);
        }
    }
    if (request.powerBackup) {
        for (const PowerEdit& edit : request.powerBackup->edits) {
            check(edit.source, edit.key, edit.before);
            require(valid(edit.key, edit.after), "a backup holds settings in their ranges");
        }
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto request = fuzzing::decodeChecked<ControlRequest>(fuzzing::Input(data, size).rest());
    if (!request) {
        return 0;
    }
    const std::string twice = "{\"command\":\"auto\"," + encodeJson(*request).substr(1);
    require(!fuzzing::admits([&] { decodeJson<ControlRequest>(twice); }),
            "a request whose command stands twice is refused");
    if (fuzzing::admits([&] { request->validate(); })) {
        checkAdmitted(*request);
    }
    return 0;
}
