#include "core/control/control_request.h"

#include "core/fan/profile.h"
#include "core/model/scope_error.h"

namespace ferovane {
namespace {

void validatePower(const ControlRequest& request, ControlCommand command) {
    if (command == ControlCommand::powerOptimize) {
        if (!request.powerPlan) {
            throw ScopeError("缺少优化方案");
        }
        request.powerPlan->validate();
    }
    if (command == ControlCommand::powerRestore) {
        if (!request.powerBackup) {
            throw ScopeError("缺少恢复记录");
        }
        request.powerBackup->validate();
    }
    if (request.powerPlan && command != ControlCommand::powerOptimize) {
        throw ScopeError("电源方案命令不匹配");
    }
    if (request.powerBackup && command != ControlCommand::powerRestore) {
        throw ScopeError("恢复记录命令不匹配");
    }
}

void validateProfile(const ControlRequest& request) {
    const std::optional<Profile> profile =
        request.profile ? profileNamed(*request.profile) : std::nullopt;
    if (!profile) {
        throw ScopeError("无效模式");
    }
    if (profile != Profile::custom) {
        return;
    }
    if (!request.curve) {
        throw ScopeError("缺少曲线");
    }
    request.curve->validate();
}

}  // namespace

ControlCommand ControlRequest::knownCommand() const {
    const auto known = fromRawValue<ControlCommand>(command);
    if (!known) {
        throw ScopeError("未知控制命令");
    }
    return *known;
}

void ControlRequest::validate() const {
    const ControlCommand known = knownCommand();
    validatePower(*this, known);
    if (known == ControlCommand::profile) {
        validateProfile(*this);
    }
    if (duration && !kDuration.admits(*duration)) {
        throw ScopeError("无效控制时长");
    }
    if (label && !kLabel.admits(*label)) {
        throw ScopeError("模式名称过长");
    }
}

}  // namespace ferovane
