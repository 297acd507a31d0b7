#include "core/analysis/sensor_naming_platform.h"

#include <array>

#include "shim/fv.h"

namespace ferovane {
namespace {

constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";

constexpr std::size_t kLongestBrandSize = 255;  // with its NUL; a longer one is no brand

std::string_view trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(kWhiteSpace);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(kWhiteSpace) - first + 1);
}

SensorNamingPlatform detectThisMachine() {
    std::array<char, kLongestBrandSize> brand{};
    return fv_cpu_brand(brand.data(), brand.size()) == 0 ? detectNamingPlatform(brand.data())
                                                         : SensorNamingPlatform::generic;
}

}  // namespace

SensorNamingPlatform detectNamingPlatform(std::string_view cpuBrand) {
    const std::string_view brand = trimmed(cpuBrand);
    if (brand == "Apple M4") {
        return SensorNamingPlatform::appleM4;
    }
    if (brand == "Apple M4 Pro" || brand == "Apple M4 Max") {
        return SensorNamingPlatform::appleM4ProMax;
    }
    return SensorNamingPlatform::generic;
}

SensorNamingPlatform currentNamingPlatform() {
    static const SensorNamingPlatform platform = detectThisMachine();
    return platform;
}

}  // namespace ferovane
