// What the guardian process does from its fork to its end.
#pragma once

#include <vector>

namespace ferovane {

// Words that the helper sends down the pipe, one byte each.
inline constexpr char kGuardianHeld = 'H';
inline constexpr char kGuardianReturned = 'R';

// Everything the guardian needs, made before the fork: from there on it may only make calls that
// are safe in a signal handler.
struct GuardianPlan {
    int pipe = -1;                 // reading end
    std::vector<int> descriptors;  // to close; the pipe is not among them
    const char* helperPath = nullptr;
};

// Runs in the forked child and ends it.
[[noreturn]] void watchOverFans(const GuardianPlan& plan);

}  // namespace ferovane
