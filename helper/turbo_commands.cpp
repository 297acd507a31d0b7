#include "helper/turbo_commands.h"

#include "helper/standard_streams.h"

namespace ferovane {

void disableTurbo(const HelperEnvironment& environment) {
    environment.makePowerAccess()->setTurbo(true);
    writeText(environment.outputDescriptor, "已确认禁用睿频驱动加载。\n");
}

void enableTurbo(const HelperEnvironment& environment) {
    environment.makePowerAccess()->setTurbo(false);
    writeText(environment.outputDescriptor, "已确认禁用睿频驱动卸载。\n");
}

}  // namespace ferovane
