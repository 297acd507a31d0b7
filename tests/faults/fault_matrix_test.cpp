// Every flow on every machine, with everything that can go wrong at every call.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <tuple>

#include "tests/faults/fault_case.h"
#include "tests/faults/tally.h"

namespace ferovane::testing {
namespace {

constexpr std::uint64_t kEverydaySeed = 20260;
constexpr std::size_t kPairsPerMachine = 1500;
constexpr std::uint64_t kUnshuffledPairs = 3;  // of four pairs, one also shuffles the threads

std::string variable(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

std::uint64_t seed() {
    const std::string text = variable("FEROVANE_FAULT_SEED");
    return text.empty() ? kEverydaySeed : std::stoull(text);
}

// At how many of the calls that a fault can strike it does so in the everyday run; the seed says at
// which. Many fans repeat what two show.
std::size_t positionsPerFault(int fans) {
    if (variable("FEROVANE_FAULT_SHARE") == "all") {
        return SIZE_MAX;
    }
    return fans == 1 ? 14 : fans == 2 ? 10 : 4;
}

std::vector<std::uint64_t> positionsFor(const FaultKind& kind, const Flow& flow,
                                        const std::vector<Call>& calls, std::size_t most,
                                        std::mt19937_64& random) {
    std::vector<std::uint64_t> positions;
    for (std::size_t i = 0; i < calls.size(); ++i) {
        if (kind.canStrike(calls[i], flow)) {
            positions.push_back(i + 1);
        }
    }
    if (positions.size() <= most) {
        return positions;
    }
    // One out of each of as many equal parts, so that all of the flow is met.
    std::vector<std::uint64_t> chosen;
    for (std::size_t part = 0; part < most; ++part) {
        const std::size_t from = part * positions.size() / most;
        const std::size_t to = (part + 1) * positions.size() / most;
        chosen.push_back(positions[from + random() % (to - from)]);
    }
    return chosen;
}

void report(const Tally& tally, const std::string& title) {
    tally.print(title + ", seed " + std::to_string(seed()));
    for (const std::string& failure : tally.failures()) {
        ADD_FAILURE() << failure;
    }
}

class FaultMatrixTest : public ::testing::TestWithParam<std::tuple<std::size_t, int>> {
protected:
    const MachineKind& machine() const { return machineKinds()[std::get<0>(GetParam())]; }
    int fans() const { return std::get<1>(GetParam()); }
    std::string title() const {
        return std::string(machine().name) + ", fans: " + std::to_string(fans());
    }
    std::vector<const Flow*> flowsHere() const {
        std::vector<const Flow*> here;
        for (const Flow& flow : flows()) {
            if (!flow.intelOnly || !machine().appleSilicon) {
                here.push_back(&flow);
            }
        }
        return here;
    }
    void tryCase(const FaultCase& faultCase, const Outcome& undisturbed, const std::string& kind) {
        const Outcome outcome = run(faultCase);
        tally_.complain(faultCase.name(), outcome.complaints);
        const bool differed = outcome.calls != undisturbed.calls ||
                              outcome.status != undisturbed.status ||
                              outcome.leftManual != undisturbed.leftManual;
        tally_.count(kind, outcome.fired == faultCase.strikes.size(), differed, outcome.leftManual);
        firstStrikes_ += outcome.fired > 0;
    }

    Tally tally_;
    std::size_t firstStrikes_ = 0;
};

TEST_P(FaultMatrixTest, KeepsItsPromisesWhateverFailsOnce) {
    std::mt19937_64 random(seed());
    for (const Flow* flow : flowsHere()) {
        const FaultCase undisturbed{&machine(), fans(), flow};
        const Outcome expected = run(undisturbed);
        tally_.complain(undisturbed.name(), expected.complaints);
        for (const FaultKind& kind : faultKinds()) {
            for (const std::uint64_t at :
                 positionsFor(kind, *flow, expected.calls, positionsPerFault(fans()), random)) {
                FaultCase faultCase = undisturbed;
                faultCase.strikes = {{&kind, at}};
                tryCase(faultCase, expected, std::string(kind.name));
            }
        }
    }
    report(tally_, title());
    // A generator that meets nothing would prove nothing.
    for (const FaultKind& kind : faultKinds()) {
        EXPECT_GT(tally_.of(std::string(kind.name)), 0U) << kind.name;
    }
    EXPECT_EQ(firstStrikes_, tally_.cases()) << "every strike finds the call it was meant for";
    EXPECT_GT(tally_.differing(), tally_.cases() / 3) << "faults have to change what happens";
}

TEST_P(FaultMatrixTest, KeepsItsPromisesWhateverFailsTwice) {
    std::mt19937_64 random(seed() + 1);
    std::map<const Flow*, Outcome> undisturbed;
    const std::vector<const Flow*> here = flowsHere();
    while (tally_.cases() < kPairsPerMachine) {
        const Flow* flow = here[random() % here.size()];
        FaultCase faultCase{&machine(), fans(), flow};
        if (undisturbed.count(flow) == 0) {
            undisturbed[flow] = run(faultCase);
        }
        const Outcome& expected = undisturbed[flow];
        while (faultCase.strikes.size() < 2) {
            const FaultKind& kind = faultKinds()[random() % faultKinds().size()];
            const auto at = positionsFor(kind, *flow, expected.calls, 1, random);
            if (!at.empty()) {
                faultCase.strikes.push_back({&kind, at.front()});
            }
        }
        // A shuffled order of the threads moves the calls, so that the strikes may miss.
        faultCase.orderSeed = random() % (kUnshuffledPairs + 1) == 0 ? random() % 1000 + 1 : 0;
        tryCase(faultCase, expected, faultCase.orderSeed != 0 ? "pair, threads shuffled" : "pair");
    }
    report(tally_, title());
    EXPECT_GT(firstStrikes_, tally_.cases() / 2);
}

std::string nameOf(const ::testing::TestParamInfo<std::tuple<std::size_t, int>>& info) {
    std::string name = std::string(machineKinds()[std::get<0>(info.param)].name) + "_" +
                       std::to_string(std::get<1>(info.param));
    std::replace(name.begin(), name.end(), ' ', '_');
    return name;
}

INSTANTIATE_TEST_SUITE_P(Machines, FaultMatrixTest,
                         ::testing::Combine(::testing::Range<std::size_t>(0, 8),
                                            ::testing::Values(1, 2, 10)),
                         nameOf);

TEST(FaultCaseTest, RunsTheCaseThatIsAskedFor) {
    const std::string name = variable("FEROVANE_FAULT_CASE");
    if (name.empty()) {
        GTEST_SKIP() << "FEROVANE_FAULT_CASE names no case";
    }
    const Outcome outcome = run(FaultCase::named(name), true);
    for (std::size_t i = 0; i < outcome.calls.size(); ++i) {
        std::printf("%5zu %s %s\n", i + 1,
                    kCallKindNames[static_cast<std::size_t>(outcome.calls[i].kind)].data(),
                    outcome.calls[i].keyText().c_str());
    }
    for (const std::string& line : outcome.journal) {
        std::printf("%s\n", line.c_str());
    }
    std::printf("%s\nstatus %d\n", outcome.told.c_str(), outcome.status);
    for (const std::string& complaint : outcome.complaints) {
        ADD_FAILURE() << complaint;
    }
}

}  // namespace
}  // namespace ferovane::testing
