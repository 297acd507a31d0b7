#pragma once

#include <CoreFoundation/CFBase.h>

typedef unsigned int CFStringEncoding;

enum : CFStringEncoding { kCFStringEncodingUTF8 = 0x08000100 };  // the one in use

extern "C" {

CFTypeID CFStringGetTypeID(void);

CFStringRef CFStringCreateWithCString(CFAllocatorRef allocator, const char* text,
                                      CFStringEncoding encoding);
CFStringRef CFStringCreateWithBytes(CFAllocatorRef allocator, const UInt8* bytes, CFIndex count,
                                    CFStringEncoding encoding, Boolean isExternalRepresentation);
CFIndex CFStringGetLength(CFStringRef string);
CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding encoding);
Boolean CFStringGetCString(CFStringRef string, char* buffer, CFIndex bufferSize,
                           CFStringEncoding encoding);

// One object per text for the life of the process; any thread, static initialisers included.
CFStringRef __CFStringMakeConstantString(const char* text);

}  // extern "C"

// The empty literals make anything but a string literal a syntax error.
#define CFSTR(literal) __CFStringMakeConstantString("" literal "")
