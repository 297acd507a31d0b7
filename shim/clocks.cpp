#include <mach/mach_time.h>

#include <limits>

#include "shim/fv.h"
#include "shim/time_base.h"

namespace {

double secondsOf(std::uint64_t ticks) {
    return static_cast<double>(ferovane::shim::nanosecondsOf(ticks)) /
           ferovane::shim::kNanosecondsPerSecond;
}

}  // namespace

namespace ferovane::shim {

// Splitting the ticks keeps every product within 64 bits, so the result is the one a 128-bit
// product would give: the remainder and the numerator are both below 2^32.
std::uint64_t scaledTicks(std::uint64_t ticks, std::uint32_t numerator, std::uint32_t denominator) {
    constexpr std::uint64_t kLargest = std::numeric_limits<std::uint64_t>::max();
    const std::uint64_t divisor = denominator == 0 ? 1 : denominator;
    const std::uint64_t whole = ticks / divisor;
    const std::uint64_t rest = ticks % divisor * numerator / divisor;
    if (numerator != 0 && whole > (kLargest - rest) / numerator) {
        return kLargest;
    }
    return whole * numerator + rest;
}

std::uint64_t nanosecondsOf(std::uint64_t ticks) {
    mach_timebase_info_data_t base{.numer = 1, .denom = 1};
    mach_timebase_info(&base);
    return scaledTicks(ticks, base.numer, base.denom);
}

}  // namespace ferovane::shim

double fv_continuous_seconds(void) {
    return secondsOf(mach_continuous_time());
}

double fv_uptime_seconds(void) {
    return secondsOf(mach_absolute_time());
}
