// One lease to be simulated, drawn by a seed: what the helper is asked to do, when it ends, and
// what goes wrong meanwhile.
#pragma once

#include <string>
#include <vector>

#include "tests/faults/draw.h"
#include "tests/faults/fault_kinds.h"

namespace ferovane::testing {

// A fault that a lease must notice where nothing else is wrong: another program sets a target again
// and again.
extern const FaultKind kRival;
inline constexpr double kRivalSeconds = 25;

struct LeaseDraw {
    struct Strike {
        const FaultKind* kind;
        double after;         // seconds after the start
        std::uint64_t calls;  // that are let pass from then on
        bool atHandBack;      // `after` counts from when the fans are due back
    };

    Flow flow;                // its prepare() is to be called still
    bool endsEarly;           // the cause that the flow stands for comes at all
    double ending;            // when it comes, in seconds after the start
    double leaseSeconds;      // of the lease, or of the whole session, when nothing ends it
    double longestSeconds;    // for which a fan may be held without a break
    std::uint64_t orderSeed;  // of the threads
    std::vector<Strike> strikes;

    LeaseDraw(const MachineKind& machine, int fans, Draw& draw);
    std::string text() const;

private:
    void dropAmbiguous();
};

}  // namespace ferovane::testing
