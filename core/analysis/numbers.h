// Numbers as they are read and summed up. Pure functions; everything may be called from any thread.
#pragma once

#include <algorithm>
#include <cmath>
#include <optional>
#include <vector>

namespace ferovane {

// Absent for what is not finite.
inline std::optional<double> ifFinite(std::optional<double> value) {
    return value && std::isfinite(*value) ? value : std::nullopt;
}

// The value below which `part` of the values lie, 0 to 1; there is at least one.
inline double quantile(std::vector<double> values, double part) {
    const auto at = values.begin() + std::lround(part * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), at, values.end());
    return *at;
}

}  // namespace ferovane
