#include "core/power/power_settings.h"

namespace ferovane {

namespace {

constexpr std::int64_t kMaximumSleepMinutes = 240;  // the longest the settings panel ever offered

}  // namespace

std::string_view title(PowerSource source) {
    return source == PowerSource::ac ? "插电" : "电池";
}

std::string_view toolArgument(PowerSource source) {
    return source == PowerSource::ac ? "-c" : "-b";
}

std::string_view title(PowerSetting setting) {
    switch (setting) {
        case PowerSetting::lowPowerMode:
            return "系统低电量模式";
        case PowerSetting::displaySleep:
            return "显示器休眠";
        case PowerSetting::systemSleep:
            return "系统闲置休眠";
    }
    return {};
}

bool valid(PowerSetting setting, std::int64_t value) {
    const std::int64_t maximum = setting == PowerSetting::lowPowerMode ? 1 : kMaximumSleepMinutes;
    return value >= 0 && value <= maximum;
}

std::string PowerEdit::id() const {
    return std::string(rawValue(source)).append(":").append(rawValue(key));
}

}  // namespace ferovane
