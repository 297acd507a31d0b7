#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/IOKitLib.h>
#include <IOKit/ps/IOPSKeys.h>
#include <IOKit/ps/IOPowerSources.h>
#include <IOKit/pwr_mgt/IOPM.h>
#include <IOKit/pwr_mgt/IOPMLib.h>

#include <cstdint>
#include <utility>

#include "shim/cf_values.h"
#include "shim/fv.h"
#include "shim/owned_ref.h"

using ferovane::shim::OwnedRef;

namespace {

constexpr int kNoValue = -1;

std::int32_t limitIn(CFDictionaryRef limits, CFStringRef key) {
    return ferovane::shim::int32Of(CFDictionaryGetValue(limits, key)).value_or(kNoValue);
}

// Both queries answer "not found" until a first value has been published, which some machines never
// do: an ordinary unknown.
void readCpuLimits(FVPowerStatus& status) {
    OwnedRef<CFDictionaryRef> limits;
    if (IOPMCopyCPUPowerStatus(limits.receive()) != kIOReturnSuccess || !limits) {
        return;
    }
    status.speed_limit = limitIn(limits.get(), CFSTR(kIOPMCPUPowerLimitProcessorSpeedKey));
    status.scheduler_limit = limitIn(limits.get(), CFSTR(kIOPMCPUPowerLimitSchedulerTimeKey));
    status.available_cpus = limitIn(limits.get(), CFSTR(kIOPMCPUPowerLimitProcessorCountKey));
}

void readThermalWarning(FVPowerStatus& status) {
    std::uint32_t level = 0;
    if (IOPMGetThermalWarningLevel(&level) == kIOReturnSuccess &&
        std::in_range<std::int32_t>(level)) {
        status.thermal_warning = static_cast<std::int32_t>(level);
    }
}

}  // namespace

FVPowerStatus fv_power_status(void) {
    FVPowerStatus status{kNoValue, kNoValue, kNoValue, kNoValue};
    readCpuLimits(status);
    readThermalWarning(status);
    return status;
}

int fv_ac_power(void) {
    const OwnedRef<CFTypeRef> sources(IOPSCopyPowerSourcesInfo());
    if (!sources) {
        return kNoValue;
    }
    const CFStringRef providing = IOPSGetProvidingPowerSourceType(sources.get());
    if (providing == nullptr) {
        return kNoValue;
    }
    return ferovane::shim::isText(providing, CFSTR(kIOPMACPowerKey)) ? 1 : 0;
}
