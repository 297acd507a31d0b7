// The kernel's named values, checked for their size.
#pragma once

#include <sys/sysctl.h>

#include <cstddef>
#include <optional>

namespace ferovane::shim {

// Nothing when there is no such name here or its value is not exactly as wide as Integer.
template <class Integer>
std::optional<Integer> systemInteger(const char* name) {
    Integer value{};
    std::size_t size = sizeof value;
    if (sysctlbyname(name, &value, &size, nullptr, 0) != 0 || size != sizeof value) {
        return std::nullopt;
    }
    return value;
}

// Fills text and its NUL. False, with an empty text, when it cannot be had or does not fit.
bool systemText(const char* name, char* text, std::size_t capacity);

}  // namespace ferovane::shim
