// One run of one flow on one machine, with faults at given calls.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tests/faults/fault_kinds.h"

namespace ferovane::testing {

struct Strike {
    const FaultKind* kind;
    std::uint64_t at;  // number of the call, counted from 1
};

struct MemoryLoss {
    long after;  // allocations that succeed
    bool forGood;
};

struct FaultCase {
    const MachineKind* machine;
    int fans;
    const Flow* flow;
    std::vector<Strike> strikes = {};
    std::optional<MemoryLoss> memory = {};
    std::uint64_t orderSeed = 0;  // of the threads

    // As the replay variable takes it: "mode keys|2|auto|garbage@18|garbage@20".
    std::string name() const;
    // Throws std::runtime_error when there is no such case.
    static FaultCase named(const std::string& name);
};

struct Outcome {
    std::vector<std::string> complaints;
    std::vector<Call> calls;
    std::size_t fired = 0;    // strikes that found the call they were meant for
    bool leftManual = false;  // a fan could not be given back, and the user was told
    bool liedTo = false;      // a fan is in manual mode that the controller said is automatic
    bool guarded = false;     // at its end the guardian believed that fans were held
    long allocations = 0;     // that the code under test made, or tried to
    bool memoryFailed = false;
    int status = 0;
    std::string told;  // output and errors
    std::vector<std::string> journal;
};

Outcome run(const FaultCase& faultCase, bool withJournal = false);

}  // namespace ferovane::testing
