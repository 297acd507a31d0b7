#include "core/control/control_request.h"

#include <utility>

#include "core/fan/profile.h"
#include "core/model/json_codec.h"
#include "core/model/scope_error.h"

namespace ferovane {
namespace {

// Every other member of a request is passed over.
struct IdAlone {
    std::optional<RequestId> id;

    static constexpr auto jsonFields() { return std::tuple{jsonField("id", &IdAlone::id)}; }
};

bool isShort(const RequestId& id) {
    const auto* text = std::get_if<std::string>(&id.value);
    return text == nullptr || ControlRequest::kId.admits(*text);
}

void validatePower(const ControlRequest& request, ControlCommand command) {
    if (command == ControlCommand::powerOptimize) {
        if (!request.powerPlan) {
            throw ScopeError("缺少优化方案", ResultCode::invalid);
        }
        request.powerPlan->validate();
    }
    if (command == ControlCommand::powerRestore) {
        if (!request.powerBackup) {
            throw ScopeError("缺少恢复记录", ResultCode::invalid);
        }
        request.powerBackup->validate();
    }
    if (request.powerPlan && command != ControlCommand::powerOptimize) {
        throw ScopeError("电源方案命令不匹配", ResultCode::invalid);
    }
    if (request.powerBackup && command != ControlCommand::powerRestore) {
        throw ScopeError("恢复记录命令不匹配", ResultCode::invalid);
    }
}

void validateProfile(const ControlRequest& request) {
    const std::optional<Profile> profile =
        request.profile ? profileNamed(*request.profile) : std::nullopt;
    if (!profile) {
        throw ScopeError("无效模式", ResultCode::invalid);
    }
    if (profile != Profile::custom) {
        return;
    }
    if (!request.curve) {
        throw ScopeError("缺少曲线", ResultCode::invalid);
    }
    request.curve->validate();
}

}  // namespace

ControlCommand ControlRequest::knownCommand() const {
    const auto known = fromRawValue<ControlCommand>(command);
    if (!known) {
        throw ScopeError("未知控制命令", ResultCode::invalid);
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
        throw ScopeError("无效控制时长", ResultCode::invalid);
    }
    if (label && !kLabel.admits(*label)) {
        throw ScopeError("模式名称过长", ResultCode::invalid);
    }
    if (id && !isShort(*id)) {
        throw ScopeError("请求编号过长", ResultCode::invalid);
    }
}

std::optional<RequestId> requestIdIn(std::string_view line) {
    try {
        auto id = decodeJson<IdAlone>(line).id;
        return id && isShort(*id) ? std::move(id) : std::nullopt;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

}  // namespace ferovane
