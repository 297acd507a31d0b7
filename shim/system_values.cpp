#include "shim/system_values.h"

#include <charconv>
#include <cstdint>
#include <cstring>

#include "shim/fv.h"

namespace ferovane::shim {

bool systemText(const char* name, char* text, std::size_t capacity) {
    if (text == nullptr || capacity == 0) {
        return false;
    }
    std::size_t size = capacity;
    const bool read = sysctlbyname(name, text, &size, nullptr, 0) == 0;
    if (read && size <= capacity && std::memchr(text, '\0', size) != nullptr) {
        return true;
    }
    text[0] = '\0';
    return false;
}

}  // namespace ferovane::shim

namespace {

// The longest product version the kernel keeps, with its NUL.
constexpr std::size_t kVersionCapacity = 48;

constexpr int kUnknown = -1;

}  // namespace

int fv_memory_pressure(void) {
    const auto level =
        ferovane::shim::systemInteger<std::int32_t>("kern.memorystatus_vm_pressure_level");
    return level == 1 || level == 2 || level == 4 ? *level : kUnknown;
}

int fv_apple_silicon(void) {
    // The name does not exist on Intel, and exists for translated processes too.
    return ferovane::shim::systemInteger<std::int32_t>("hw.optional.arm64") == 1 ? 1 : 0;
}

int fv_system_version(void) {
    char text[kVersionCapacity];
    if (!ferovane::shim::systemText("kern.osproductversion", text, sizeof text)) {
        return kUnknown;
    }
    const char* const end = text + std::strlen(text);
    unsigned short major = 0;
    const auto [afterMajor, majorError] = std::from_chars(text, end, major);
    if (majorError != std::errc{}) {
        return kUnknown;
    }
    unsigned short minor = 0;
    if (afterMajor != end && *afterMajor == '.') {
        if (std::from_chars(afterMajor + 1, end, minor).ec != std::errc{} || minor > 99) {
            return kUnknown;
        }
    }
    return major * 100 + minor;
}

int fv_cpu_brand(char* text, size_t capacity) {
    return ferovane::shim::systemText("machdep.cpu.brand_string", text, capacity) ? 0 : kUnknown;
}
