// Small CoreFoundation values for the answers of Apple's interfaces.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstdint>
#include <memory>
#include <type_traits>

#include "simulator/machine/world.h"

namespace simulator {

struct CFReleaser {
    void operator()(CFTypeRef object) const { CFRelease(object); }
};

// An object of this program's own, released at the end of the scope.
template <typename Ref>
using OwnedCF = std::unique_ptr<std::remove_pointer_t<Ref>, CFReleaser>;

inline OwnedCF<CFStringRef> cfString(const char* text) {
    return OwnedCF<CFStringRef>(
        CFStringCreateWithCString(kCFAllocatorDefault, text, kCFStringEncodingUTF8));
}

inline OwnedCF<CFNumberRef> cfNumber(std::int64_t number) {
    return OwnedCF<CFNumberRef>(CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt64Type, &number));
}

inline OwnedCF<CFMutableDictionaryRef> cfDictionary() {
    return OwnedCF<CFMutableDictionaryRef>(CFDictionaryCreateMutable(
        kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks));
}

inline void cfSet(CFMutableDictionaryRef dictionary, const char* key, CFTypeRef value) {
    CFDictionarySetValue(dictionary, cfString(key).get(), value);
}

inline void cfSet(CFMutableDictionaryRef dictionary, const char* key, std::int64_t number) {
    cfSet(dictionary, key, static_cast<CFTypeRef>(cfNumber(number).get()));
}

inline void cfSet(CFMutableDictionaryRef dictionary, const char* key, const char* text) {
    cfSet(dictionary, key, static_cast<CFTypeRef>(cfString(text).get()));
}

// As the world has it: a number, a text where a number belongs, or no entry.
inline void cfSet(CFMutableDictionaryRef dictionary, const char* key, const PropertyValue& value) {
    if (value.form == PropertyForm::kNumber) {
        const double rounded = value.number < 0 ? value.number - 0.5 : value.number + 0.5;
        cfSet(dictionary, key, static_cast<std::int64_t>(rounded));
    } else if (value.form == PropertyForm::kNotANumber) {
        cfSet(dictionary, key, "not a number");
    }
}

}  // namespace simulator
