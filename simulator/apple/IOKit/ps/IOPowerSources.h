#pragma once

#include <CoreFoundation/CFArray.h>
#include <CoreFoundation/CFBase.h>
#include <CoreFoundation/CFDictionary.h>

// Answers of IOPSGetProvidingPowerSourceType; plain literals.
#define kIOPMUPSPowerKey "UPS Power"
#define kIOPMBatteryPowerKey "Battery Power"
#define kIOPMACPowerKey "AC Power"

extern "C" {

CFTypeRef IOPSCopyPowerSourcesInfo(void);
CFArrayRef IOPSCopyPowerSourcesList(CFTypeRef blob);
CFDictionaryRef IOPSGetPowerSourceDescription(CFTypeRef blob, CFTypeRef source);
CFStringRef IOPSGetProvidingPowerSourceType(CFTypeRef blob);

}  // extern "C"
