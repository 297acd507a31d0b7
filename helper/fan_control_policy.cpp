#include "helper/fan_control_policy.h"

#include "core/fan/profile.h"
#include "core/model/scope_error.h"

namespace ferovane::FanControlPolicy {
namespace {

bool touchesFansOnly(const ControlRequest& request) {
    switch (request.knownCommand()) {
        case ControlCommand::hello:
        case ControlCommand::status:
        case ControlCommand::automatic:
        case ControlCommand::testFans:
        case ControlCommand::shutdown:
            return true;
        case ControlCommand::profile:
            return request.profile == commandWord(Profile::custom);
        case ControlCommand::powerOptimize:
        case ControlCommand::powerRestore:
        case ControlCommand::turboDisable:
        case ControlCommand::turboEnable:
            return false;
    }
    return false;
}

}  // namespace

void validate(const ControlRequest& request, bool appleSilicon) {
    request.validate();
    if (appleSilicon && !touchesFansOnly(request)) {
        throw ScopeError("Apple Silicon 当前仅支持独立风扇控制，不支持 Intel 睿频或电源设置控制",
                         ResultCode::unsupported);
    }
}

}  // namespace ferovane::FanControlPolicy
