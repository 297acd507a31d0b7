#include "helper/fan_control_policy.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "core/fan/profile.h"
#include "core/model/scope_error.h"

namespace ferovane::FanControlPolicy {
namespace {

constexpr std::array<std::string_view, 5> kFanOnlyCommands{"hello", "status", "auto", "test-fans",
                                                           "shutdown"};

bool touchesFansOnly(const ControlRequest& request) {
    if (request.command == "profile") {
        return request.profile == commandWord(Profile::custom);
    }
    return std::find(kFanOnlyCommands.begin(), kFanOnlyCommands.end(), request.command) !=
           kFanOnlyCommands.end();
}

}  // namespace

void validate(const ControlRequest& request, bool appleSilicon) {
    request.validate();
    if (appleSilicon && !touchesFansOnly(request)) {
        throw ScopeError("Apple Silicon 当前仅支持独立风扇控制，不支持 Intel 睿频或电源设置控制");
    }
}

}  // namespace ferovane::FanControlPolicy
