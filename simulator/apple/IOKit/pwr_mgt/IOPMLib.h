#pragma once

#include <CoreFoundation/CFBase.h>
#include <CoreFoundation/CFDictionary.h>
#include <CoreFoundation/CFString.h>
#include <IOKit/IOReturn.h>

enum { kIOPMAssertionLevelOff = 0, kIOPMAssertionLevelOn = 255 };

// These are CFStrings already.
#define kIOPMAssertionTypeKey CFSTR("AssertType")
#define kIOPMAssertionLevelKey CFSTR("AssertLevel")
#define kIOPMAssertionNameKey CFSTR("AssertName")

#define kIOPMAssertionTypePreventUserIdleSystemSleep CFSTR("PreventUserIdleSystemSleep")
#define kIOPMAssertionTypePreventUserIdleDisplaySleep CFSTR("PreventUserIdleDisplaySleep")
#define kIOPMAssertionTypePreventSystemSleep CFSTR("PreventSystemSleep")

extern "C" {

IOReturn IOPMCopyCPUPowerStatus(CFDictionaryRef* status);
IOReturn IOPMGetThermalWarningLevel(std::uint32_t* level);

// May succeed without touching the pointer.
IOReturn IOPMCopyAssertionsByProcess(CFDictionaryRef* assertionsByPid);

}  // extern "C"
