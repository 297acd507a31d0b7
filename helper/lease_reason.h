// Why a lease is over, told alike to whoever asks and to the system's log.
#pragma once

#include <exception>
#include <string_view>

#include "core/control/lease_ending.h"
#include "helper/helper_environment.h"

namespace ferovane {

// What is the case when a lease ends.
struct LeaseSurroundings {
    bool stopSignal = false;
    bool ownerGone = false;
    bool requested = false;
    bool slept = false;  // the machine has, since the lease last looked at its fans
};

// failure: what the lease ended with, null where nothing failed. A hand-back that failed is another
// matter.
LeaseEnd reasonFor(const std::exception_ptr& failure, const LeaseSurroundings& around) noexcept;

// The reason's text, or the failure's own where the reason has none; lives as long as the failure.
std::string_view textOf(LeaseEnd reason, const std::exception_ptr& failure) noexcept;

// Seconds that the machine has slept, from an unknown time on.
double asleep(const HelperEnvironment& environment);

// Whether it has slept since `before`, which asleep() said.
bool sleptSince(double before, const HelperEnvironment& environment);

}  // namespace ferovane
