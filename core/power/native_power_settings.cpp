#include "core/power/native_power_settings.h"

#include <string>
#include <vector>

#include "core/model/scope_error.h"

namespace ferovane {

namespace {

constexpr const char* kTool = "/usr/bin/pmset";
constexpr double kReadSeconds = 8;    // the tool only prints what the system has cached
constexpr double kWriteSeconds = 12;  // it waits for the power daemon to store the change

}  // namespace

PowerConfiguration NativePowerSettings::read(const ToolRunner& run) {
    const auto result = run(kTool, {"-g", "custom"}, kReadSeconds);
    if (result.outputLost) {
        throw ScopeError("磁盘空间不足，无法取得电源设置", ResultCode::resources);
    }
    if (result.status != 0) {
        throw ScopeError("电源设置读取失败", ResultCode::unreadable);
    }
    return PowerConfiguration::parse(result.output);
}

void NativePowerSettings::write(PowerSetting setting, PowerSource source, std::int64_t value,
                                const ToolRunner& run) {
    if (!valid(setting, value)) {
        throw ScopeError("电源参数不在允许范围", ResultCode::invalid);
    }
    const auto result = run(
        kTool,
        {std::string(toolArgument(source)), std::string(rawValue(setting)), std::to_string(value)},
        kWriteSeconds);
    if (result.status != 0) {
        throw ScopeError("系统电源设置未完成：" + result.output);
    }
    if (read(run).value(setting, source) != value) {
        throw ScopeError("系统电源设置读回不一致");
    }
}

}  // namespace ferovane
