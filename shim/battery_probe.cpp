#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/IOKitLib.h>
#include <IOKit/ps/IOPSKeys.h>
#include <IOKit/ps/IOPowerSources.h>

#include <cstdint>
#include <limits>
#include <optional>

#include "shim/cf_values.h"
#include "shim/fv.h"
#include "shim/matched_service.h"
#include "shim/owned_ref.h"

using ferovane::shim::booleanOf;
using ferovane::shim::int64Of;
using ferovane::shim::MatchedService;
using ferovane::shim::numberOf;
using ferovane::shim::OwnedRef;

namespace {

constexpr double kNotANumber = std::numeric_limits<double>::quiet_NaN();
constexpr char kBatteryService[] = "AppleSmartBattery";

// The first internal battery that is not reported missing; an empty bay is still listed.
CFDictionaryRef internalBattery(CFTypeRef sources, CFArrayRef list) {
    for (CFIndex index = 0; index < CFArrayGetCount(list); ++index) {
        const CFDictionaryRef source =
            IOPSGetPowerSourceDescription(sources, CFArrayGetValueAtIndex(list, index));
        if (source == nullptr) {
            continue;
        }
        const bool internal = ferovane::shim::isText(
            CFDictionaryGetValue(source, CFSTR(kIOPSTypeKey)), CFSTR(kIOPSInternalBatteryType));
        if (internal &&
            booleanOf(CFDictionaryGetValue(source, CFSTR(kIOPSIsPresentKey))).value_or(true)) {
            return source;
        }
    }
    return nullptr;
}

void readCharge(FVBattery& battery) {
    const OwnedRef<CFTypeRef> sources(IOPSCopyPowerSourcesInfo());
    if (!sources) {
        return;
    }
    const OwnedRef<CFArrayRef> list(IOPSCopyPowerSourcesList(sources.get()));
    const CFDictionaryRef source = list ? internalBattery(sources.get(), list.get()) : nullptr;
    if (source == nullptr) {
        return;
    }
    const auto current = numberOf(CFDictionaryGetValue(source, CFSTR(kIOPSCurrentCapacityKey)));
    const auto maximum = numberOf(CFDictionaryGetValue(source, CFSTR(kIOPSMaxCapacityKey)));
    if (current && maximum && *maximum > 0.0) {
        battery.percent = *current * 100.0 / *maximum;
    }
    if (const auto charging = booleanOf(CFDictionaryGetValue(source, CFSTR(kIOPSIsChargingKey)))) {
        battery.charging = *charging ? 1 : 0;
    }
}

std::optional<std::int64_t> property(const MatchedService& service, CFStringRef key) {
    const OwnedRef<CFTypeRef> value(
        IORegistryEntryCreateCFProperty(service.get(), key, kCFAllocatorDefault, 0));
    return int64Of(value.get());
}

void readGauge(FVBattery& battery) {
    const MatchedService service(kBatteryService);
    if (!service) {
        return;
    }
    if (const auto millivolts = property(service, CFSTR("Voltage"))) {
        battery.millivolts = static_cast<double>(*millivolts);
    }
    // The driver publishes a discharge current as an unsigned number that has wrapped around; read
    // as a signed 64-bit number it has its sign again.
    if (const auto milliamps = property(service, CFSTR("Amperage"))) {
        battery.milliamps = static_cast<double>(*milliamps);
    }
    if (const auto cycles = property(service, CFSTR("CycleCount")); cycles && *cycles >= 0) {
        battery.cycles = *cycles;
    }
}

}  // namespace

FVBattery fv_battery(void) {
    FVBattery battery{.percent = kNotANumber,
                      .millivolts = kNotANumber,
                      .milliamps = kNotANumber,
                      .charging = -1,
                      .cycles = -1};
    readCharge(battery);
    readGauge(battery);
    return battery;
}
