#include "core/power/power_optimization_plan.h"

#include <string>
#include <string_view>

#include "core/model/scope_error.h"

namespace ferovane {

namespace {

constexpr std::int64_t kLowPowerOn = 1;

void requireChoice(const std::optional<std::int64_t>& minutes, const JsonChoices<3>& choices,
                   const char* failure) {
    if (minutes && !choices.admits(*minutes)) {
        throw ScopeError(failure, ResultCode::invalid);
    }
}

std::string_view unreadable(PowerSetting setting) {
    switch (setting) {
        case PowerSetting::lowPowerMode:
            return "此设备的系统低电量设置不可读取";
        case PowerSetting::displaySleep:
            return "显示器休眠设置不可读取";
        case PowerSetting::systemSleep:
            return "系统休眠设置不可读取";
    }
    return {};
}

}  // namespace

void PowerOptimizationPlan::validate() const {
    requireChoice(displayMinutes, kDisplayChoices, "无效的显示器休眠时间");
    requireChoice(idleMinutes, kIdleChoices, "无效的系统休眠时间");
}

std::vector<PowerTarget> PowerOptimizationPlan::targets() const {
    std::vector<PowerTarget> list;
    if (lowPower) {
        const auto where = scope == PowerScope::batteryAutomatic ? PowerSource::battery : source;
        list.push_back({where, PowerSetting::lowPowerMode, kLowPowerOn});
    }
    if (displayMinutes) {
        list.push_back({source, PowerSetting::displaySleep, *displayMinutes});
    }
    if (idleMinutes) {
        list.push_back({source, PowerSetting::systemSleep, *idleMinutes});
    }
    return list;
}

std::vector<PowerEdit> PowerOptimizationPlan::edits(const PowerConfiguration& configuration) const {
    std::vector<PowerEdit> list;
    for (const auto& target : targets()) {
        const auto current = configuration.value(target.key, target.source);
        if (current && *current != target.value) {
            list.push_back({target.source, target.key, *current, target.value});
        }
    }
    return list;
}

void PowerOptimizationPlan::requireReadable(const PowerConfiguration& configuration) const {
    validate();
    const auto wanted = targets();
    for (const auto& target : wanted) {
        if (!configuration.value(target.key, target.source)) {
            throw ScopeError(std::string(unreadable(target.key)), ResultCode::unreadable);
        }
    }
    if (!expected) {
        return;
    }
    for (const auto& target : wanted) {
        if (configuration.value(target.key, target.source) !=
            expected->value(target.key, target.source)) {
            throw ScopeError("电源设置已变化，请刷新后重新选择措施", ResultCode::changed);
        }
    }
}

}  // namespace ferovane
