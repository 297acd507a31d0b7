// Everything that can go wrong at a call, and at which calls each of it can.
#pragma once

#include <string_view>
#include <vector>

#include "tests/faults/flows.h"

namespace ferovane::testing {

// What it may do to a run, and so what the judge puts up with.
enum class Harm : std::uint8_t {
    none,     // nothing that anybody could notice
    fails,    // what is asked for may fail; the fans have nothing to do with it
    once,     // one call to the controller, or a few, go wrong
    lieOnce,  // one reading is wrong
    lasting,  // the controller does not do as it is told any more
    lies,     // the controller says what is not so, again and again
    late,     // every write takes effect late
    outage,   // the controller is out for a while
    rival,    // another program
    cause,    // a reason to stop
};

// By a name, or by the simulated machine's own line for it, with "@" for the key of the call.
struct FaultKind {
    std::string_view name;
    Harm harm;
    bool (*canStrike)(const Call& call, const Flow& flow);
    void (*happens)(FaultWorld& world, const Call& call) = nullptr;  // or what the name says

    void strike(FaultWorld& world, const Call& call) const;
};
const std::vector<FaultKind>& faultKinds();

inline constexpr double kOutageSeconds = 6;

}  // namespace ferovane::testing
