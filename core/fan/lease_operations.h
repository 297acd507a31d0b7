// The time of a lease, and what it is handed from outside so that it never sleeps by itself.
#pragma once

#include <algorithm>
#include <functional>

namespace ferovane {

using LeaseClock = std::function<double()>;    // seconds on a monotonic clock that counts sleep
using LeaseCancelled = std::function<bool()>;  // whether the lease is to end now
// Passes the time until the next round, or the seconds that are left to the lease if that is less.
// May throw, which ends the lease like any failure.
using LeasePause = std::function<void(double left)>;

// Seconds on the lease's clock.
struct LeaseSpan {
    double start = 0;
    double deadline = 0;

    // False from the deadline on, and also before the start and for a time that is no number: a
    // clock that cannot be trusted ends a lease rather than prolonging it.
    bool contains(double time) const { return time >= start && time < deadline; }

    // Until the deadline; never negative, and 0 for a time that is no number.
    double left(double time) const { return std::max(0.0, deadline - time); }
};

}  // namespace ferovane
