// Every flow on every machine, with everything that can go wrong at every call.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <map>
#include <tuple>

#include "tests/faults/sweep.h"

namespace ferovane::testing {
namespace {

constexpr std::uint64_t kUnshuffledPairs = 3;  // of four pairs, one also shuffles the threads
constexpr long kAllTheMemory = std::numeric_limits<long>::max();

struct Sizes {
    std::size_t positions;         // at how many of the calls that a fault can strike it does so
    std::size_t pairs;             // of faults
    std::size_t pairsWithMemory;   // a fault and an allocation
    long betweenAllocations;       // of every so many, one fails
    std::size_t onBuiltInMachine;  // single faults
};

// Many fans repeat what two show.
Sizes sizes(int fans) {
    const bool many = fans > 2;
    switch (faultShare()) {
        case FaultShare::kAll:
            return {SIZE_MAX, 20000, 20000, 1, 10000};
        case FaultShare::kSmall:
            return {fans == 1 ? 2U : 1U, 100, 50, many ? 40 : 10, 40};
        default:
            return {many ? 3U : fans == 2 ? 8U : 12U, 1200, 400, many ? 4 : 1, 250};
    }
}

// How many calls come before the first that changes something; 0 when none does.
std::size_t firstWrite(const std::vector<Call>& calls) {
    const auto found = std::find_if(calls.begin(), calls.end(), [](const Call& call) {
        return call.kind == CallKind::keyWrite;
    });
    return found == calls.end() ? 0 : static_cast<std::size_t>(found - calls.begin());
}

const Outcome& undisturbedOnce(std::map<const Flow*, Outcome>& known, const FaultCase& faultCase) {
    const auto found = known.find(faultCase.flow);
    return found != known.end() ? found->second
                                : known.emplace(faultCase.flow, run(faultCase)).first->second;
}

std::string withoutSigns(std::string name) {
    std::replace_if(
        name.begin(), name.end(), [](unsigned char c) { return !std::isalnum(c); }, '_');
    return name;
}

class FaultMatrixTest : public ::testing::TestWithParam<std::tuple<const MachineKind*, int>> {
protected:
    static Sweep sweep(std::uint64_t purpose) {
        return Sweep(*std::get<0>(GetParam()), fans(), purpose);
    }
    static int fans() { return std::get<1>(GetParam()); }
};

TEST_P(FaultMatrixTest, KeepsItsPromisesWhateverFailsOnce) {
    Sweep here = sweep(0);
    for (const Flow* flow : here.flowsHere()) {
        const FaultCase undisturbed = here.undisturbed(*flow);
        const Outcome expected = run(undisturbed);
        here.tally.complain(undisturbed.name(), expected.complaints);
        for (const FaultKind& kind : faultKinds()) {
            for (const std::uint64_t at :
                 here.positions(kind, *flow, expected.calls, sizes(fans()).positions)) {
                FaultCase faultCase = undisturbed;
                faultCase.strikes = {{&kind, at}};
                here.tryCase(faultCase, expected, std::string(kind.name));
            }
        }
    }
    here.report();
    // A generator that meets nothing would prove nothing.
    for (const FaultKind& kind : faultKinds()) {
        EXPECT_GT(here.tally.of(std::string(kind.name)), 0U) << kind.name;
    }
    EXPECT_EQ(here.firstStrikes, here.tally.cases())
        << "every strike finds the call it was meant for";
    EXPECT_GT(here.tally.differing(), here.tally.cases() / 3)
        << "faults have to change what happens";
}

TEST_P(FaultMatrixTest, KeepsItsPromisesWhateverFailsTwice) {
    Sweep here = sweep(1);
    std::map<const Flow*, Outcome> undisturbed;
    while (here.tally.cases() < sizes(fans()).pairs) {
        const Flow* flow = here.flowsHere()[here.below(here.flowsHere().size())];
        FaultCase faultCase = here.undisturbed(*flow);
        const Outcome& expected = undisturbedOnce(undisturbed, faultCase);
        while (faultCase.strikes.size() < 2) {
            const FaultKind& kind = faultKinds()[here.below(faultKinds().size())];
            const auto at = here.positions(kind, *flow, expected.calls, 1);
            if (!at.empty()) {
                faultCase.strikes.push_back({&kind, at.front()});
            }
        }
        // A shuffled order of the threads moves the calls, so that the strikes may miss.
        faultCase.orderSeed = here.below(kUnshuffledPairs + 1) == 0 ? here.below(1000) + 1 : 0;
        here.tryCase(faultCase, expected,
                     faultCase.orderSeed != 0 ? "pair, threads shuffled" : "pair");
    }
    here.report();
    EXPECT_GT(here.firstStrikes, here.tally.cases() / 2);
}

TEST_P(FaultMatrixTest, KeepsItsPromisesWhicheverAllocationFails) {
    Sweep here = sweep(2);
    for (const Flow* flow : here.flowsHere()) {
        FaultCase faultCase = here.undisturbed(*flow);
        const Outcome expected = run(faultCase);
        for (const bool forGood : {false, true}) {
            bool failed = true;
            for (long after = 0; failed; after += sizes(fans()).betweenAllocations) {
                faultCase.memory = MemoryLoss{after, forGood};
                const Outcome outcome = here.tryCase(
                    faultCase, expected, forGood ? "memory gone for good" : "allocation fails");
                if (outcome.guarded) {
                    here.tally.complain(faultCase.name(), {"a hand-back needs memory"});
                }
                failed = outcome.memoryFailed;
            }
        }
    }
    here.report();
    EXPECT_GT(here.tally.differing(), here.tally.cases() / 2);
}

TEST_P(FaultMatrixTest, KeepsItsPromisesWhenMemoryFailsBesideSomethingElse) {
    Sweep here = sweep(3);
    std::map<const Flow*, Outcome> undisturbed;
    while (here.tally.cases() < sizes(fans()).pairsWithMemory) {
        const Flow* flow = here.flowsHere()[here.below(here.flowsHere().size())];
        const FaultKind& kind = faultKinds()[here.below(faultKinds().size())];
        FaultCase faultCase = here.undisturbed(*flow);
        const Outcome& expected = undisturbedOnce(undisturbed, faultCase);
        const auto at = here.positions(kind, *flow, expected.calls, 1);
        if (at.empty()) {
            continue;
        }
        faultCase.strikes = {{&kind, at.front()}};
        faultCase.memory = MemoryLoss{kAllTheMemory, false};
        const auto allocations = static_cast<std::uint64_t>(run(faultCase).allocations);
        faultCase.memory =
            MemoryLoss{static_cast<long>(here.below(allocations + 1)), here.below(2) == 0};
        here.tryCase(faultCase, expected, "a fault, and memory fails");
    }
    here.report();
}

std::string nameOf(const ::testing::TestParamInfo<std::tuple<const MachineKind*, int>>& info) {
    return withoutSigns(std::get<0>(info.param)->name + "_" +
                        std::to_string(std::get<1>(info.param)));
}

INSTANTIATE_TEST_SUITE_P(Machines, FaultMatrixTest,
                         ::testing::Combine(::testing::ValuesIn(smallMachines()),
                                            ::testing::Values(1, 2, 10)),
                         nameOf);

// Hundreds of keys and the fans of real machines; what can go wrong is sampled.
class BuiltInMachineTest : public ::testing::TestWithParam<const MachineKind*> {};

TEST_P(BuiltInMachineTest, KeepsItsPromisesWhateverFails) {
    const int fans = GetParam()->ownFans;
    Sweep here(*GetParam(), fans, 4);
    std::map<const Flow*, Outcome> undisturbed;
    while (here.tally.cases() < sizes(fans).onBuiltInMachine) {
        const Flow* flow = here.flowsHere()[here.below(here.flowsHere().size())];
        FaultCase faultCase = here.undisturbed(*flow);
        const Outcome& expected = undisturbedOnce(undisturbed, faultCase);
        // Most calls look for sensors; every other fault strikes once fans are written to.
        const std::size_t from = here.below(2) == 0 ? 0 : firstWrite(expected.calls);
        const FaultKind& kind = faultKinds()[here.below(faultKinds().size())];
        const auto at = here.positions(kind, *flow, expected.calls, 1, from);
        if (!at.empty()) {
            faultCase.strikes = {{&kind, at.front()}};
            here.tryCase(faultCase, expected, std::string(kind.name));
        }
    }
    here.report();
    EXPECT_GT(here.tally.differing(), here.tally.cases() / 3);
}

INSTANTIATE_TEST_SUITE_P(Machines, BuiltInMachineTest, ::testing::ValuesIn(builtInMachines()),
                         [](const auto& machine) { return withoutSigns(machine.param->name); });

void print(const Outcome& outcome) {
    for (std::size_t i = 0; i < outcome.calls.size(); ++i) {
        std::printf("%5zu %s %s\n", i + 1,
                    kCallKindNames[static_cast<std::size_t>(outcome.calls[i].kind)].data(),
                    outcome.calls[i].keyText().c_str());
    }
    for (const std::string& line : outcome.journal) {
        std::printf("%s\n", line.c_str());
    }
    std::printf("%s\nstatus %d\n", outcome.told.c_str(), outcome.status);
}

// The case that a variable names, told in full; else one that shows that a name repeats a case.
TEST(FaultCaseTest, RunsTheCaseThatIsAskedFor) {
    const char* asked = std::getenv("FEROVANE_FAULT_CASE");
    const std::string name = asked != nullptr ? asked : "mode keys|2|auto|garbage@18|garbage@20";
    const FaultCase faultCase = FaultCase::named(name);
    EXPECT_EQ(faultCase.name(), name);
    const Outcome outcome = run(faultCase, true);
    EXPECT_GT(outcome.fired, 0u);
    EXPECT_EQ(run(faultCase, true).journal, outcome.journal);
    for (const std::string& complaint : outcome.complaints) {
        ADD_FAILURE() << complaint;
    }
    if (asked != nullptr) {
        print(outcome);
    }
}

}  // namespace
}  // namespace ferovane::testing
