#pragma once

#include <CoreFoundation/CFBase.h>
#include <CoreFoundation/CFURL.h>

typedef struct __CFBundle* CFBundleRef;

extern "C" {

// While a simulated machine is attached, an absolute path is looked up below its root.
CFBundleRef CFBundleCreate(CFAllocatorRef allocator, CFURLRef url);
CFStringRef CFBundleGetIdentifier(CFBundleRef bundle);

}  // extern "C"
