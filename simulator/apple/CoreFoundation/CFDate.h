#pragma once

#include <CoreFoundation/CFBase.h>

typedef double CFTimeInterval;
typedef CFTimeInterval CFAbsoluteTime;  // seconds since 2001-01-01 00:00:00 UTC
typedef const struct __CFDate* CFDateRef;

extern "C" {

CFTypeID CFDateGetTypeID(void);
CFDateRef CFDateCreate(CFAllocatorRef allocator, CFAbsoluteTime at);
CFAbsoluteTime CFDateGetAbsoluteTime(CFDateRef date);

}  // extern "C"
