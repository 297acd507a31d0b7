#include "core/power/power_settings.h"

namespace ferovane {

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

std::string PowerEdit::id() const {
    return std::string(rawValue(source)).append(":").append(rawValue(key));
}

}  // namespace ferovane
