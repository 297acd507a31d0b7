// Reading values that other programs and drivers published: every one is checked to be of its type
// before it is used, and "absent" and "of another type" are the same answer.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstdint>
#include <optional>
#include <string>

#include "shim/owned_ref.h"

namespace ferovane::shim {

// Nothing when the value is null, not a number, or not a whole number of the width asked for.
std::optional<std::int32_t> int32Of(CFTypeRef value);
std::optional<std::int64_t> int64Of(CFTypeRef value);

std::optional<double> numberOf(CFTypeRef value);
std::optional<bool> booleanOf(CFTypeRef value);
std::optional<std::string> textOf(CFTypeRef value);  // UTF-8

// The value as the collection it is, or null. Not owned: it lives as long as its holder.
CFDictionaryRef dictionaryOf(CFTypeRef value);
CFArrayRef arrayOf(CFTypeRef value);

bool isText(CFTypeRef value, CFStringRef expected);

// Null for text that is not UTF-8.
OwnedRef<CFStringRef> makeString(const char* text);

}  // namespace ferovane::shim
