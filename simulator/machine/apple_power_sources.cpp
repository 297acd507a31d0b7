// Power sources: mains, battery, UPS.
#include <IOKit/ps/IOPSKeys.h>
#include <IOKit/ps/IOPowerSources.h>

#include <vector>

#include "simulator/machine/cf_values.h"
#include "simulator/machine/machine.h"
#include "simulator/machine/power_keys.h"

namespace {

using namespace simulator;

// The blob that programs pass back: a dictionary with the descriptions. A source is its
// description.
constexpr char kSources[] = "Sources";

constexpr double kOnBattery = 0;
constexpr double kOnUps = 2;
constexpr std::int64_t kFullCapacity = 100;

CFTypeRef boolean(bool value) {
    return value ? kCFBooleanTrue : kCFBooleanFalse;
}

OwnedCF<CFMutableDictionaryRef> description(World& world, const char* type) {
    auto source = cfDictionary();
    const bool onBattery = world.number(Property::kAcPower, 1) == kOnBattery;
    cfSet(source.get(), kIOPSTypeKey, type);
    cfSet(source.get(), kIOPSPowerSourceStateKey,
          onBattery ? kIOPSBatteryPowerValue : kIOPSACPowerValue);
    cfSet(source.get(), kIOPSMaxCapacityKey, kFullCapacity);
    cfSet(source.get(), kIOPSIsPresentKey, boolean(true));
    return source;
}

OwnedCF<CFMutableDictionaryRef> battery(World& world) {
    auto source = description(world, kIOPSInternalBatteryType);
    cfSet(source.get(), kIOPSNameKey, "InternalBattery-0");
    cfSet(source.get(), kIOPSTransportTypeKey, kIOPSInternalType);
    cfSet(source.get(), kIOPSCurrentCapacityKey, world.property(Property::kBatteryPercent));
    if (world.property(Property::kBatteryCharging).form != PropertyForm::kAbsent) {
        cfSet(source.get(), kIOPSIsChargingKey, boolean(PowerKeys::batteryCharging(world)));
    }
    return source;
}

OwnedCF<CFMutableDictionaryRef> ups(World& world) {
    auto source = description(world, kIOPSUPSType);
    cfSet(source.get(), kIOPSNameKey, "UPS");
    cfSet(source.get(), kIOPSCurrentCapacityKey, kFullCapacity);
    cfSet(source.get(), kIOPSIsChargingKey, boolean(true));
    return source;
}

OwnedCF<CFArrayRef> sources(World& world) {
    std::vector<OwnedCF<CFMutableDictionaryRef>> owned;
    if (world.number(Property::kAcPower, 1) == kOnUps) {
        owned.push_back(ups(world));
    }
    if (world.number(Property::kBatteryPresent, 0) != 0) {
        owned.push_back(battery(world));
    }
    std::vector<const void*> values;
    for (const auto& source : owned) {
        values.push_back(source.get());
    }
    return OwnedCF<CFArrayRef>(CFArrayCreate(kCFAllocatorDefault, values.data(),
                                             static_cast<CFIndex>(values.size()),
                                             &kCFTypeArrayCallBacks));
}

CFArrayRef sourcesIn(CFTypeRef blob) {
    if (blob == nullptr || CFGetTypeID(blob) != CFDictionaryGetTypeID()) {
        return nullptr;
    }
    const auto* list =
        CFDictionaryGetValue(static_cast<CFDictionaryRef>(blob), cfString(kSources).get());
    return static_cast<CFArrayRef>(list);
}

}  // namespace

extern "C" {

CFTypeRef IOPSCopyPowerSourcesInfo(void) {
    Machine* machine = attachedMac();
    if (machine == nullptr) {
        return nullptr;
    }
    return machine->locked([](World& world) -> CFTypeRef {
        if (world.property(Property::kAcPower).form == PropertyForm::kAbsent) {
            return nullptr;
        }
        auto blob = cfDictionary();
        cfSet(blob.get(), kSources, static_cast<CFTypeRef>(sources(world).get()));
        return blob.release();
    });
}

CFArrayRef IOPSCopyPowerSourcesList(CFTypeRef blob) {
    CFArrayRef list = sourcesIn(blob);
    return list != nullptr ? static_cast<CFArrayRef>(CFRetain(list)) : nullptr;
}

CFDictionaryRef IOPSGetPowerSourceDescription(CFTypeRef blob, CFTypeRef source) {
    CFArrayRef list = sourcesIn(blob);
    for (CFIndex i = 0; list != nullptr && i < CFArrayGetCount(list); ++i) {
        if (CFArrayGetValueAtIndex(list, i) == source) {
            return static_cast<CFDictionaryRef>(source);
        }
    }
    return nullptr;
}

CFStringRef IOPSGetProvidingPowerSourceType(CFTypeRef) {
    Machine* machine = attachedMac();
    const auto power = machine == nullptr ? std::nullopt : machine->locked([](World& world) {
        return world.number(Property::kAcPower);
    });
    if (!power) {
        return nullptr;
    }
    return *power == kOnBattery ? CFSTR(kIOPMBatteryPowerKey)
           : *power == kOnUps   ? CFSTR(kIOPMUPSPowerKey)
                                : CFSTR(kIOPMACPowerKey);
}

}  // extern "C"
