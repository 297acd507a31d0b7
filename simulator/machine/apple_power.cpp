// Power management: CPU limits, thermal warning, power assertions.
#include <IOKit/pwr_mgt/IOPM.h>
#include <IOKit/pwr_mgt/IOPMLib.h>

#include <cstdio>

#include "simulator/machine/cf_values.h"
#include "simulator/machine/machine.h"
#include "simulator/machine/power_keys.h"

namespace {

using namespace simulator;

OwnedCF<CFTypeRef> entry(const AssertionRecord& assertion) {
    if (assertion.type[0] == '\0') {
        return OwnedCF<CFTypeRef>(CFRetain(kCFBooleanFalse));
    }
    auto fields = cfDictionary();
    CFDictionarySetValue(fields.get(), kIOPMAssertionTypeKey, cfString(assertion.type).get());
    CFDictionarySetValue(fields.get(), kIOPMAssertionNameKey, cfString(assertion.reason).get());
    CFDictionarySetValue(fields.get(), kIOPMAssertionLevelKey, cfNumber(assertion.level).get());
    cfSet(fields.get(), "AssertPID", std::int64_t{assertion.pid});
    if (assertion.process[0] != '\0') {
        cfSet(fields.get(), "Process Name", assertion.process);
    }
    if (assertion.since != 0) {
        const OwnedCF<CFDateRef> since(CFDateCreate(kCFAllocatorDefault, assertion.since));
        cfSet(fields.get(), "AssertStartWhen", static_cast<CFTypeRef>(since.get()));
    }
    return OwnedCF<CFTypeRef>(fields.release());
}

OwnedCF<CFArrayRef> entriesOf(World& world, std::int32_t pid) {
    std::vector<OwnedCF<CFTypeRef>> owned;
    std::vector<const void*> values;
    for (const AssertionRecord& assertion : world.state().assertions) {
        if (assertion.used != 0 && assertion.pid == pid) {
            owned.push_back(entry(assertion));
            values.push_back(owned.back().get());
        }
    }
    return OwnedCF<CFArrayRef>(CFArrayCreate(kCFAllocatorDefault, values.data(),
                                             static_cast<CFIndex>(values.size()),
                                             &kCFTypeArrayCallBacks));
}

}  // namespace

extern "C" {

IOReturn IOPMCopyCPUPowerStatus(CFDictionaryRef* status) {
    Machine* machine = attachedMac();
    if (machine == nullptr || status == nullptr) {
        return kIOReturnNotFound;
    }
    auto limits = cfDictionary();
    machine->locked([&limits](World& world) {
        cfSet(limits.get(), kIOPMCPUPowerLimitProcessorSpeedKey, PowerKeys::speedLimit(world));
        cfSet(limits.get(), kIOPMCPUPowerLimitSchedulerTimeKey,
              world.property(Property::kSchedulerLimit));
        cfSet(limits.get(), kIOPMCPUPowerLimitProcessorCountKey,
              world.property(Property::kAvailableCpus));
    });
    if (CFDictionaryGetCount(limits.get()) == 0) {
        return kIOReturnNotFound;
    }
    *status = limits.release();
    return kIOReturnSuccess;
}

IOReturn IOPMGetThermalWarningLevel(std::uint32_t* level) {
    Machine* machine = attachedMac();
    if (machine == nullptr || level == nullptr) {
        return kIOReturnNotFound;
    }
    const auto published =
        machine->locked([](World& world) { return world.number(Property::kThermalWarning); });
    if (!published) {
        return kIOReturnNotFound;
    }
    *level = static_cast<std::uint32_t>(*published);
    return kIOReturnSuccess;
}

IOReturn IOPMCopyAssertionsByProcess(CFDictionaryRef* assertionsByPid) {
    Machine* machine = attachedMac();
    if (machine == nullptr || assertionsByPid == nullptr) {
        return kIOReturnNotFound;
    }
    auto byPid = cfDictionary();
    const bool reached = machine->locked([&byPid](World& world) {
        for (const AssertionRecord& assertion : world.state().assertions) {
            if (assertion.used != 0) {
                CFDictionarySetValue(byPid.get(), cfNumber(assertion.pid).get(),
                                     entriesOf(world, assertion.pid).get());
            }
        }
        return world.number(Property::kAssertionsAnswer, 1) != 0;
    });
    if (!reached) {
        return kIOReturnNotFound;
    }
    if (CFDictionaryGetCount(byPid.get()) != 0) {
        *assertionsByPid = byPid.release();  // with no assertion the pointer stays untouched
    }
    return kIOReturnSuccess;
}

}  // extern "C"
