// Base types and the calls that every CoreFoundation object answers.
#pragma once

#include <cstddef>
#include <cstdint>

typedef unsigned char Boolean;
typedef unsigned char UInt8;

typedef unsigned long CFTypeID;
typedef unsigned long CFHashCode;
typedef long CFIndex;
typedef const void* CFTypeRef;

typedef const struct __CFString* CFStringRef;
typedef const struct __CFAllocator* CFAllocatorRef;

extern "C" {

extern const CFAllocatorRef kCFAllocatorDefault;

// Null ends the program in all of these, as on macOS.
CFTypeID CFGetTypeID(CFTypeRef object);
CFTypeRef CFRetain(CFTypeRef object);
void CFRelease(CFTypeRef object);
CFIndex CFGetRetainCount(CFTypeRef object);
Boolean CFEqual(CFTypeRef first, CFTypeRef second);
CFHashCode CFHash(CFTypeRef object);

}  // extern "C"
