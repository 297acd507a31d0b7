#pragma once

#include <CoreFoundation/CFBase.h>
#include <CoreFoundation/CFString.h>

typedef const struct __CFURL* CFURLRef;

enum CFURLPathStyle : CFIndex {
    kCFURLPOSIXPathStyle = 0,
    kCFURLHFSPathStyle = 1,
    kCFURLWindowsPathStyle = 2
};

extern "C" {

CFURLRef CFURLCreateFromFileSystemRepresentation(CFAllocatorRef allocator, const UInt8* path,
                                                 CFIndex byteCount, Boolean isDirectory);
CFURLRef CFURLCreateWithFileSystemPath(CFAllocatorRef allocator, CFStringRef path,
                                       CFURLPathStyle style, Boolean isDirectory);

}  // extern "C"
