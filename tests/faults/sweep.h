// Runs many cases on one machine and keeps the tally.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "tests/faults/fault_case.h"
#include "tests/faults/tally.h"

namespace ferovane::testing {

// The run's seed: FEROVANE_FAULT_SEED, or the everyday one.
std::uint64_t faultSeed();

// How much of the matrix is run. The everyday share is a sample; FEROVANE_FAULT_SHARE=all is all of
// it. Under a sanitizer, which slows everything down several times, the sample is smaller.
enum class FaultShare { kEveryday, kSmall, kAll };
FaultShare faultShare();

class Sweep {
public:
    // purpose: a number of its own for each sweep with one seed.
    Sweep(const MachineKind& machine, int fans, std::uint64_t purpose);

    const std::vector<const Flow*>& flowsHere() const { return flows_; }
    std::uint64_t below(std::uint64_t limit) { return random_() % limit; }
    FaultCase undisturbed(const Flow& flow) const { return {&machine_, fans_, &flow}; }

    // One call out of each of as many equal parts of those that the fault can strike, so that all
    // of the flow is met; all of them when they are no more. from: so many calls are passed over.
    std::vector<std::uint64_t> positions(const FaultKind& kind, const Flow& flow,
                                         const std::vector<Call>& calls, std::size_t most,
                                         std::size_t from = 0);

    Outcome tryCase(const FaultCase& faultCase, const Outcome& undisturbed,
                    const std::string& kind);

    // Prints the tally and fails the test for each broken promise.
    void report() const;

    Tally tally;
    std::size_t firstStrikes = 0;  // cases of which at least one strike found its call

private:
    const MachineKind& machine_;
    int fans_;
    std::mt19937_64 random_;
    std::vector<const Flow*> flows_;
};

}  // namespace ferovane::testing
