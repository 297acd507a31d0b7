// What the guardian process does from its start to its end.
#pragma once

#include <cstdint>

#include "helper/helper_environment.h"

namespace ferovane {

// Argument 0 of a guardian, and its name where the system names processes by themselves. No
// argument that a user gives stands there.
inline constexpr const char* kGuardianName = "fan-guardian";

// What the helper tells its guardian: everything, each time.
struct GuardianCharge {
    std::int32_t fansHeld = 0;   // 1 while any is
    std::int32_t toolGroup = 0;  // process group of the running tool; 0 when there is none

    bool operator==(const GuardianCharge&) const = default;
};

// What the guardian tells its helper, once: it is out of every user's reach and listens.
inline constexpr char kGuardianStands = 'S';

// Runs the guardian and returns its exit status. helper: a stream socket whose other end only the
// helper has. Sleeps until that is closed; then ends the helper's tool and, when fans were held,
// hands back every fan, again and again for some 25 seconds until it has read back that all are
// automatic; tells the system log whether they are. makeEnvironment is called for each attempt.
int keepGuard(int helper, HelperEnvironment (*makeEnvironment)());

}  // namespace ferovane
