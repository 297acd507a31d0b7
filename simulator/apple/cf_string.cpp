#include "simulator/apple/cf_string.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>

namespace {

using simulator::cf::checked;

constexpr unsigned kFirstNonAscii = 0x80;

bool isContinuation(unsigned char byte) {
    return (byte & 0xC0u) == 0x80u;
}

// Bytes of the sequence that starts with this byte, 0 when none can.
std::size_t sequenceLength(unsigned char lead) {
    if (lead < kFirstNonAscii) {
        return 1;
    }
    if (lead >= 0xC2 && lead <= 0xDF) {
        return 2;
    }
    if (lead >= 0xE0 && lead <= 0xEF) {
        return 3;
    }
    return lead >= 0xF0 && lead <= 0xF4 ? 4 : 0;
}

// Refuses what a well-formed lead byte still allows: overlong forms, surrogates, above U+10FFFF.
bool secondByteFits(unsigned char lead, unsigned char second) {
    switch (lead) {
        case 0xE0:
            return second >= 0xA0;
        case 0xED:
            return second <= 0x9F;
        case 0xF0:
            return second >= 0x90;
        case 0xF4:
            return second <= 0x8F;
        default:
            return true;
    }
}

bool sequenceIsValid(std::string_view sequence) {
    const auto lead = static_cast<unsigned char>(sequence.front());
    return std::all_of(sequence.begin() + 1, sequence.end(),
                       [](char c) { return isContinuation(static_cast<unsigned char>(c)); }) &&
           (sequence.size() < 2 || secondByteFits(lead, static_cast<unsigned char>(sequence[1])));
}

}  // namespace

namespace simulator::cf {

std::optional<CFIndex> utf16Length(std::string_view utf8) {
    CFIndex units = 0;
    while (!utf8.empty()) {
        const std::size_t bytes = sequenceLength(static_cast<unsigned char>(utf8.front()));
        if (bytes == 0 || bytes > utf8.size() || !sequenceIsValid(utf8.substr(0, bytes))) {
            return std::nullopt;
        }
        units += bytes == 4 ? 2 : 1;
        utf8.remove_prefix(bytes);
    }
    return units;
}

CFStringRef makeString(std::string_view utf8) {
    const std::optional<CFIndex> length = utf16Length(utf8);
    return length ? make<__CFString>(std::string(utf8), *length) : nullptr;
}

}  // namespace simulator::cf

CFTypeID CFStringGetTypeID(void) {
    return __CFString::kTypeId;
}

CFStringRef CFStringCreateWithCString(CFAllocatorRef allocator, const char* text,
                                      CFStringEncoding encoding) {
    if (text == nullptr) {
        simulator::cf::fail("null is not a text", __func__);
    }
    return CFStringCreateWithBytes(allocator, reinterpret_cast<const UInt8*>(text),
                                   static_cast<CFIndex>(std::strlen(text)), encoding, 0);
}

CFStringRef CFStringCreateWithBytes(CFAllocatorRef, const UInt8* bytes, CFIndex count,
                                    CFStringEncoding encoding, Boolean) {
    const bool readable = count >= 0 && encoding == kCFStringEncodingUTF8;
    return readable ? simulator::cf::makeString(
                          {reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(count)})
                    : nullptr;
}

CFIndex CFStringGetLength(CFStringRef string) {
    return checked(string).length;
}

CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding encoding) {
    constexpr CFIndex kNotFound = -1;
    constexpr CFIndex kUtf8BytesPerUnit = 3;  // a pair of units takes four bytes
    return encoding == kCFStringEncodingUTF8 && length <= INT64_MAX / kUtf8BytesPerUnit
               ? length * kUtf8BytesPerUnit
               : kNotFound;
}

Boolean CFStringGetCString(CFStringRef string, char* buffer, CFIndex bufferSize,
                           CFStringEncoding encoding) {
    const std::string& text = checked(string).utf8;
    if (encoding != kCFStringEncodingUTF8 || buffer == nullptr ||
        bufferSize <= static_cast<CFIndex>(text.size())) {
        return 0;
    }
    std::memcpy(buffer, text.c_str(), text.size() + 1);
    return 1;
}

CFStringRef __CFStringMakeConstantString(const char* text) {
    static std::mutex mutex;
    // Never destroyed, like the strings in it: static objects of other files may still use them.
    static auto& strings = *new std::map<std::string, CFStringRef, std::less<>>;
    const std::lock_guard lock(mutex);
    const auto known = strings.find(std::string_view(text));
    if (known != strings.end()) {
        return known->second;
    }
    const std::optional<CFIndex> length = simulator::cf::utf16Length(text);
    if (!length) {
        simulator::cf::fail("a constant string must be UTF-8", __func__);
    }
    return strings.emplace(text, new __CFString(text, *length)).first->second;
}
