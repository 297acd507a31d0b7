#include "shim/cf_values.h"

#include <vector>

namespace ferovane::shim {

namespace {

bool hasType(CFTypeRef value, CFTypeID type) {
    return value != nullptr && CFGetTypeID(value) == type;
}

template <class Number>
std::optional<Number> numericValue(CFTypeRef value, CFNumberType type) {
    Number number{};
    if (!hasType(value, CFNumberGetTypeID()) ||
        CFNumberGetValue(static_cast<CFNumberRef>(value), type, &number) == 0) {
        return std::nullopt;
    }
    return number;
}

}  // namespace

std::optional<std::int32_t> int32Of(CFTypeRef value) {
    return numericValue<std::int32_t>(value, kCFNumberSInt32Type);
}

std::optional<std::int64_t> int64Of(CFTypeRef value) {
    return numericValue<std::int64_t>(value, kCFNumberSInt64Type);
}

std::optional<double> numberOf(CFTypeRef value) {
    return numericValue<double>(value, kCFNumberFloat64Type);
}

std::optional<bool> booleanOf(CFTypeRef value) {
    if (!hasType(value, CFBooleanGetTypeID())) {
        return std::nullopt;
    }
    return CFBooleanGetValue(static_cast<CFBooleanRef>(value)) != 0;
}

std::optional<std::string> textOf(CFTypeRef value) {
    if (!hasType(value, CFStringGetTypeID())) {
        return std::nullopt;
    }
    const auto string = static_cast<CFStringRef>(value);
    const CFIndex capacity =
        CFStringGetMaximumSizeForEncoding(CFStringGetLength(string), kCFStringEncodingUTF8) + 1;
    std::vector<char> buffer(static_cast<std::size_t>(capacity), '\0');
    if (CFStringGetCString(string, buffer.data(), capacity, kCFStringEncodingUTF8) == 0) {
        return std::nullopt;
    }
    return std::string(buffer.data());
}

CFDictionaryRef dictionaryOf(CFTypeRef value) {
    return hasType(value, CFDictionaryGetTypeID()) ? static_cast<CFDictionaryRef>(value) : nullptr;
}

CFArrayRef arrayOf(CFTypeRef value) {
    return hasType(value, CFArrayGetTypeID()) ? static_cast<CFArrayRef>(value) : nullptr;
}

bool isText(CFTypeRef value, CFStringRef expected) {
    return value != nullptr && CFEqual(value, expected) != 0;
}

OwnedRef<CFStringRef> makeString(const char* text) {
    return OwnedRef<CFStringRef>(
        CFStringCreateWithCString(kCFAllocatorDefault, text, kCFStringEncodingUTF8));
}

}  // namespace ferovane::shim
