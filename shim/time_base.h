// Mach time units: one nanosecond on Intel, 125/3 nanoseconds on Apple Silicon.
#pragma once

#include <cstdint>

namespace ferovane::shim {

inline constexpr double kNanosecondsPerSecond = 1e9;

// ticks * numerator / denominator, rounded down and exact; the largest value when that does not
// fit. A denominator of 0 counts as 1.
std::uint64_t scaledTicks(std::uint64_t ticks, std::uint32_t numerator, std::uint32_t denominator);

// Nanoseconds in so many of this machine's time units, saturating.
std::uint64_t nanosecondsOf(std::uint64_t ticks);

}  // namespace ferovane::shim
