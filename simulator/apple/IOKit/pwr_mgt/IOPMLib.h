#pragma once

#include <CoreFoundation/CFBase.h>
#include <CoreFoundation/CFDictionary.h>
#include <CoreFoundation/CFString.h>
#include <IOKit/IOReturn.h>

enum { kIOPMAssertionLevelOff = 0 };

// These are CFStrings already.
#define kIOPMAssertionTypeKey CFSTR("AssertType")
#define kIOPMAssertionLevelKey CFSTR("AssertLevel")
#define kIOPMAssertionNameKey CFSTR("AssertName")

extern "C" {

IOReturn IOPMCopyCPUPowerStatus(CFDictionaryRef* status);
IOReturn IOPMGetThermalWarningLevel(std::uint32_t* level);

// May succeed without touching the pointer.
IOReturn IOPMCopyAssertionsByProcess(CFDictionaryRef* assertionsByPid);

}  // extern "C"
