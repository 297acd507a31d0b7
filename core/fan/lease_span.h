// The time for which a lease may hold fans.
#pragma once

namespace ferovane {

// Seconds on the lease's clock.
struct LeaseSpan {
    double start = 0;
    double deadline = 0;

    // False from the deadline on, and also before the start and for a time that is no number: a
    // clock that cannot be trusted ends a lease rather than prolonging it.
    bool contains(double time) const { return time >= start && time < deadline; }
};

}  // namespace ferovane
