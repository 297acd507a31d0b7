#include "core/hardware/smc_verification.h"

#include <cmath>
#include <cstdint>

#include "core/fan/fan_keys.h"

namespace ferovane::SMCVerification {
namespace {

bool matches(std::optional<double> reading, double target) {
    // Every comparison with NaN is false, so only finite numbers get through.
    return reading && std::fabs(*reading - target) < kMatchDistance;
}

std::optional<bool> automaticUnless(std::optional<double> handoff) {
    if (handoff && *handoff != 0.0) {
        return std::nullopt;
    }
    return false;
}

}  // namespace

bool waitFor(double target, double timeout, const std::function<double()>& now,
             const std::function<std::optional<double>()>& read,
             const std::function<void()>& wait) {
    const double deadline = now() + timeout;
    int matchesSoFar = 0;
    for (int round = 0; round < kReadBackRounds; ++round) {
        if (now() > deadline) {
            return false;
        }
        matchesSoFar = matches(read(), target) ? matchesSoFar + 1 : 0;
        if (matchesSoFar == kMatchesInARow) {
            return true;
        }
        if (now() >= deadline) {
            return false;
        }
        wait();
    }
    return false;
}

std::optional<bool> manualState(std::optional<double> local, std::optional<double> flags, int id,
                                std::optional<double> handoff) {
    if (local) {
        if (*local == FanMode::kManual) {
            return true;
        }
        if (FanMode::isAutomatic(*local)) {
            return automaticUnless(handoff);
        }
        return std::nullopt;
    }
    // Written so that a mask that is NaN fails it, too.
    if (!flags || !FanLimits::isFan(id) || !(*flags >= 0 && *flags <= kLargestFanMask)) {
        return std::nullopt;
    }
    const auto mask = static_cast<std::uint32_t>(*flags);
    if ((mask >> id & 1U) != 0) {
        return true;
    }
    return automaticUnless(handoff);
}

}  // namespace ferovane::SMCVerification
