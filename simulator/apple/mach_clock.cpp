// The two machine clocks in nanoseconds (a time base of 1/1, as on Intel), from the host's clocks
// with the same meaning or, through them, from the attached machine.
#include <mach/mach_time.h>
#include <time.h>

#include <algorithm>

#include "simulator/apple/attached_machine.h"

namespace {

using simulator::AttachedMachine;

constexpr double kNanosecondsPerSecond = 1e9;

std::uint64_t hostNanoseconds(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000u +
           static_cast<std::uint64_t>(now.tv_nsec);
}

std::uint64_t machineNanoseconds(clockid_t clock, double (AttachedMachine::*machineClock)(double)) {
    const std::uint64_t host = hostNanoseconds(clock);
    AttachedMachine* machine = simulator::attachedMachine();
    if (machine == nullptr) {
        return host;
    }
    const double seconds =
        (machine->*machineClock)(static_cast<double>(host) / kNanosecondsPerSecond);
    return static_cast<std::uint64_t>(std::max(0.0, seconds) * kNanosecondsPerSecond);
}

}  // namespace

kern_return_t mach_timebase_info(mach_timebase_info_t info) {
    *info = {1, 1};
    return KERN_SUCCESS;
}

std::uint64_t mach_absolute_time(void) {
    return machineNanoseconds(CLOCK_MONOTONIC, &AttachedMachine::uptimeSeconds);
}

std::uint64_t mach_continuous_time(void) {
    return machineNanoseconds(CLOCK_BOOTTIME, &AttachedMachine::continuousSeconds);
}
