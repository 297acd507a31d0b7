// Everything that can go wrong at a call, and at which calls each of it can.
#pragma once

#include <string_view>
#include <vector>

#include "tests/faults/flows.h"

namespace ferovane::testing {

struct FaultKind {
    std::string_view name;
    bool (*canStrike)(const Call& call, const Flow& flow);
    void (*strike)(FaultWorld& world, const Call& call);
    bool settlesLate = false;  // writes may still take effect when the helper has ended
    bool endsLease = false;    // or what the helper is doing: no fault, but a cause to stop
};
const std::vector<FaultKind>& faultKinds();

}  // namespace ferovane::testing
