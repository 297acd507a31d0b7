#include "core/power/turbo.h"

#include <array>
#include <utility>
#include <vector>

#include "core/model/scope_error.h"
#include "shim/fv.h"

namespace ferovane {

namespace {

constexpr const char* kExtensionTool = "/usr/bin/kmutil";
constexpr double kToolSeconds = 90;  // loading may rebuild the system's extension collection
constexpr const char* kDriver = "com.vorandel.DisableTurboBoost";

// Where the application that brings the driver keeps it; the first that has it is used.
constexpr std::array<const char*, 2> kDriverPaths{
    "/Applications/Turbo Boost Switcher Pro.app/Contents/Resources/DisableTurboBoost.64bits.kext",
    "/Applications/Turbo Boost Switcher.app/Contents/Resources/DisableTurboBoost.64bits.kext",
};

// The driver at a known place, for systems that do not find it by its name.
CommandResult loadFromPath(const TurboOperations& operations, CommandResult byName) {
    for (const std::string path : kDriverPaths) {
        if (operations.bundleQualifies(path)) {
            return operations.run(kExtensionTool, {"load", "-p", path}, kToolSeconds);
        }
    }
    return byName;
}

}  // namespace

std::optional<std::int64_t> turboState() {
    const int state = fv_turbo_driver_state();
    return state < 0 ? std::nullopt : std::optional<std::int64_t>(state);
}

void setTurbo(bool disable, const TurboOperations& operations) {
    const std::int64_t wanted = disable ? 1 : 0;
    if (operations.driverState() == wanted) {
        return;
    }
    auto result =
        operations.run(kExtensionTool, {disable ? "load" : "unload", "-b", kDriver}, kToolSeconds);
    if (disable && result.status != 0) {
        result = loadFromPath(operations, std::move(result));
    }
    if (result.status == 0 && operations.driverState() == wanted) {
        return;
    }
    throw ScopeError("睿频操作未确认。需要已安装且获得系统批准的驱动。\n" + result.output,
                     ResultCode::driver);
}

void setTurbo(bool disable, const ToolRunner& run) {
    const auto bundleQualifies = [](const std::string& path) {
        return fv_bundle_has_identifier(path.c_str(), kDriver) == 1;
    };
    setTurbo(disable, TurboOperations{turboState, run, bundleQualifies});
}

}  // namespace ferovane
