#include "helper/turbo_commands.h"

#include "helper/standard_streams.h"
#include "helper/turbo_change.h"

namespace ferovane {
namespace {

void switchTurbo(bool disable, std::string_view confirmation,
                 const HelperEnvironment& environment) {
    environment.installStopHandlers();
    const auto guardian = environment.makeGuardian();
    const auto power = environment.makePowerAccess(*guardian, environment.shouldStop);
    TurboChange(*power).apply(disable);
    writeText(environment.outputDescriptor, confirmation);
}

}  // namespace

void disableTurbo(const HelperEnvironment& environment) {
    switchTurbo(true, "已确认禁用睿频驱动加载。\n", environment);
}

void enableTurbo(const HelperEnvironment& environment) {
    switchTurbo(false, "已确认禁用睿频驱动卸载。\n", environment);
}

}  // namespace ferovane
