// Everything that can be wrong, and at which calls each of it can begin.
#pragma once

#include <string_view>
#include <vector>

#include "tests/faults/flows.h"

namespace ferovane::testing {

// What it may do to a run, and so what the judge puts up with.
enum class Harm : std::uint8_t {
    none,     // nothing that anybody could notice
    fails,    // what is asked for may fail; the fans have nothing to do with it
    channel,  // likewise, and the session may end
    hit,      // calls to the controller go wrong
    lies,     // what it answers is not so
    late,     // what it is told takes effect late
    time,     // the clock is wrong, or the machine sleeps
    rival,    // another program
    cause,    // a reason to stop
    unfit,    // found so: no lease may begin
    denied,   // found so: nothing at all may be done
};

// By a name, or by the simulated machine's own line for it, with "@" for the key of the call.
struct FaultKind {
    std::string_view name;
    Harm harm;
    Calls calls;
    bool (*isIn)(const Flow& flow) = nullptr;                        // null: any
    void (*happens)(FaultWorld& world, const Call& call) = nullptr;  // null: what the name says

    bool canStrike(Calls made, const Flow& flow) const {
        return (calls & made) != 0 && (isIn == nullptr || isIn(flow));
    }
    bool is(std::string_view word) const { return name.starts_with(word); }
    bool has(std::string_view word) const { return name.find(word) != name.npos; }
    void strike(FaultWorld& world, const Call& call) const;
};
const std::vector<FaultKind>& faultKinds();

}  // namespace ferovane::testing
