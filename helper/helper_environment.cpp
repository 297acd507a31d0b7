#include "helper/helper_environment.h"

#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include "core/hardware/system_capabilities.h"
#include "core/model/scope_error.h"
#include "helper/process_guardian.h"
#include "helper/system_power_access.h"
#include "shim/fv.h"

namespace ferovane {
namespace {

constexpr std::size_t kLongestPath = 4096;

std::string executablePath() {
    char path[kLongestPath];
    if (fv_executable_path(path, sizeof path) != 0) {
        throw ScopeError("无法确定辅助进程的文件位置，未接管风扇");
    }
    return path;
}

}  // namespace

HelperEnvironment productionEnvironment() {
    HelperEnvironment environment;
    environment.effectiveUser = ::geteuid();
    environment.realUser = ::getuid();
    environment.now = fv_continuous_seconds;
    environment.uptime = fv_uptime_seconds;
    environment.pause = fv_pause;
    environment.shouldStop = fv_should_stop;
    environment.installStopHandlers = fv_install_stop_handlers;
    environment.ownerAlive = fv_owner_alive;
    environment.fileExists = [](const std::string& path) {
        struct stat status {};
        return ::lstat(path.c_str(), &status) == 0;
    };
    environment.useUtilityPriority = fv_use_utility_priority;
    const auto log = std::make_shared<SystemLog>(fv_log, fv_uptime_seconds);
    environment.log = [log](const LogLine& line) { log->tell(line); };
    environment.endProcess = [log](int status) {
        log->settle();
        ::_exit(status);
    };
    environment.appleSilicon = SystemCapabilities::appleSilicon();
    environment.makeGuardian = [] { return std::make_unique<ProcessGuardian>(executablePath); };
    environment.makeSMC = [] { return std::make_unique<SMC>(); };
    environment.makeSampler = [] { return std::make_unique<HardwareSampler>(); };
    environment.makePowerAccess = [tell = environment.log](ToolKeeper& keeper,
                                                           std::function<bool()> stop) {
        return std::make_unique<SystemPowerAccess>(keeper, std::move(stop), tell);
    };
    return environment;
}

}  // namespace ferovane
