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
    // Every reading is out of date for longer than writes are waited for, so that nothing said of
    // such a machine can be relied on; counted, and held to all but the truth of what was said.
    bool outlastsReadBack = false;
};
const std::vector<FaultKind>& faultKinds();

}  // namespace ferovane::testing
