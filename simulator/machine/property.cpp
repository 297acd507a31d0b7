#include "simulator/machine/property.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>

namespace simulator {
namespace {

constexpr std::array<std::string_view, static_cast<std::size_t>(Property::kCount)> kNames = {
    "load",
    "gpu-load",
    "ambient",
    "speed",
    "ac",
    "battery",
    "battery-percent",
    "battery-mv",
    "battery-ma",
    "battery-charging",
    "battery-cycles",
    "speed-limit",
    "scheduler-limit",
    "available-cpus",
    "thermal-warning",
    "thermal-state",
    "low-power",
    "memory-pressure",
    "processors",
    "manual-mode",
    "privileged",
    "extension",
    "extension-approval",
    "extension-answers",
    "assertions-answer",
    "turbo-applications",
};

constexpr std::array<std::string_view, 4> kFormNames = {"follow", "", "text", "absent"};

constexpr double kLargest = 1e9;  // thirty years in seconds

}  // namespace

std::string_view propertyName(Property property) {
    return kNames[static_cast<std::size_t>(property)];
}

std::optional<Property> propertyNamed(std::string_view name) {
    const auto found = std::find(kNames.begin(), kNames.end(), name);
    if (found == kNames.end()) {
        return std::nullopt;
    }
    return static_cast<Property>(found - kNames.begin());
}

std::string_view formName(PropertyForm form) {
    return kFormNames[static_cast<std::size_t>(form)];
}

PropertyForm formNamed(std::string_view name) {
    const auto* found = std::find(kFormNames.begin(), kFormNames.end(), name);
    return found == kFormNames.end() || name.empty()
               ? PropertyForm::kNumber
               : static_cast<PropertyForm>(found - kFormNames.begin());
}

std::optional<double> worldNumber(const std::string& text) {
    char* end = nullptr;
    const double number = std::strtod(text.c_str(), &end);
    // Written so that what is not a number fails it, too.
    if (text.empty() || *end != '\0' || !(std::abs(number) <= kLargest)) {
        return std::nullopt;
    }
    return number;
}

}  // namespace simulator
