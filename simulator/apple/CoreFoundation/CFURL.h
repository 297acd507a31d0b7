#pragma once

#include <CoreFoundation/CFBase.h>
#include <CoreFoundation/CFString.h>

typedef const struct __CFURL* CFURLRef;

extern "C" {

CFURLRef CFURLCreateFromFileSystemRepresentation(CFAllocatorRef allocator, const UInt8* path,
                                                 CFIndex byteCount, Boolean isDirectory);

}  // extern "C"
