#pragma once

#include <CoreFoundation/CFString.h>

#include <optional>
#include <string>
#include <string_view>

#include "simulator/apple/cf_object.h"

struct __CFString final : simulator::cf::Object {
    static constexpr simulator::cf::TypeId kTypeId = simulator::cf::kStringTypeId;

    __CFString(std::string utf8Text, CFIndex utf16Units)
        : Object(kTypeId), utf8(std::move(utf8Text)), length(utf16Units) {}

    bool equals(const Object& other) const override {
        return utf8 == static_cast<const __CFString&>(other).utf8;
    }
    CFHashCode hash() const override { return std::hash<std::string>{}(utf8); }

    std::string utf8;
    const CFIndex length;

protected:
    void dropContents() override { std::string().swap(utf8); }
};

namespace simulator::cf {

// UTF-16 units of a well-formed UTF-8 text, nothing for any other bytes.
std::optional<CFIndex> utf16Length(std::string_view utf8);

// A new string, or null when the bytes are not well-formed UTF-8. The caller releases it.
CFStringRef makeString(std::string_view utf8);

}  // namespace simulator::cf
