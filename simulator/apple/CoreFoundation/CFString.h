#pragma once

#include <CoreFoundation/CFBase.h>

typedef unsigned int CFStringEncoding;

enum : CFStringEncoding {
    kCFStringEncodingMacRoman = 0,
    kCFStringEncodingUTF16 = 0x0100,
    kCFStringEncodingISOLatin1 = 0x0201,
    kCFStringEncodingASCII = 0x0600,
    kCFStringEncodingUTF8 = 0x08000100
};
#define kCFStringEncodingInvalidId (0xffffffffU)

typedef CFOptionFlags CFStringCompareFlags;

extern "C" {

CFTypeID CFStringGetTypeID(void);

// The encodings known here are ASCII and UTF-8.
CFStringRef CFStringCreateWithCString(CFAllocatorRef allocator, const char* text,
                                      CFStringEncoding encoding);
CFStringRef CFStringCreateWithBytes(CFAllocatorRef allocator, const UInt8* bytes, CFIndex count,
                                    CFStringEncoding encoding, Boolean isExternalRepresentation);
CFIndex CFStringGetLength(CFStringRef string);
CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding encoding);
Boolean CFStringGetCString(CFStringRef string, char* buffer, CFIndex bufferSize,
                           CFStringEncoding encoding);
const char* CFStringGetCStringPtr(CFStringRef string, CFStringEncoding encoding);
CFComparisonResult CFStringCompare(CFStringRef first, CFStringRef second,
                                   CFStringCompareFlags options);

// One object per text for the life of the process; any thread, static initialisers included.
CFStringRef __CFStringMakeConstantString(const char* text);

}  // extern "C"

// The empty literals make anything but a string literal a syntax error.
#define CFSTR(literal) __CFStringMakeConstantString("" literal "")
