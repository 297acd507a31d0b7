// What this build of the library is allowed to be.
#pragma once

#include <string_view>

namespace ferovane::AppDistribution {

inline constexpr bool isAppStore = false;
inline constexpr bool hardwareControlAvailable = true;

// What a monitoring-only build from the store shows instead of fan controls.
inline constexpr std::string_view monitoringOnlyMessage =
    "App Store 版仅监测硬件状态，风扇转速由系统或其他控制器管理。";

}  // namespace ferovane::AppDistribution
