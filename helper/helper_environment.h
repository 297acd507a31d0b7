// Everything the helper's process owns, in one struct: main fills it, tests fill it otherwise.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "core/hardware/hardware_sampler.h"
#include "core/hardware/smc.h"
#include "core/power/power_settings_access.h"
#include "helper/fan_guardian.h"
#include "helper/session_timings.h"
#include "helper/system_log.h"

namespace ferovane {

struct HelperEnvironment {
    std::uint32_t effectiveUser = 0;  // must be 0 for every command that changes hardware
    std::uint32_t realUser = 0;       // who was authorised to start the helper

    int inputDescriptor = 0;
    int outputDescriptor = 1;
    int errorDescriptor = 2;

    std::function<double()> now;     // monotonic seconds, counting while the machine sleeps
    std::function<double()> uptime;  // monotonic seconds, stopping while the machine sleeps
    std::function<bool(double seconds)> pause;  // ends early, with true, on a stop signal
    std::function<bool()> shouldStop;           // a stop signal has arrived
    std::function<void()> installStopHandlers;
    std::function<bool(std::int32_t pid, std::uint32_t uid)> ownerAlive;
    std::function<bool(const std::string& path)> fileExists;  // itself, not what a link points to
    std::function<void()> useUtilityPriority;                 // of the calling thread
    std::function<void(int status)> endProcess;               // at once: no destructor runs
    Log log = kSilence;                                       // of what root did
    SessionTimings timings;

    bool appleSilicon = false;
    std::function<std::unique_ptr<FanGuardian>()> makeGuardian;
    std::function<std::unique_ptr<SMC>()> makeSMC;
    std::function<std::unique_ptr<HardwareSampler>()> makeSampler;
    // The keeper outlives what is made; stop: true once the work through it is to be given up.
    std::function<std::unique_ptr<PowerSettingsAccess>(ToolKeeper&, std::function<bool()> stop)>
        makePowerAccess;
};

// The real machine and this process.
HelperEnvironment productionEnvironment();

}  // namespace ferovane
