// The whole helper on simulated machines, with whatever can go wrong going wrong: what it is asked
// to do, on what, and what befalls it are drawn by a seed.
//
//     FEROVANE_FAULT_SEED=N    the first seed; each case has one of its own, counted up from it
//     FEROVANE_FAULT_CASES=N   how many; one alone is told in full
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <limits>
#include <set>
#include <sstream>

#include "tests/faults/failing_memory.h"
#include "tests/faults/judge.h"

namespace ferovane::testing {
namespace {

constexpr int kEverydaySeed = 1;
constexpr int kManyCases = 5000;
constexpr std::size_t kMostComplaints = 4;
constexpr int kFanCounts[] = {1, 1, 1, 2, 2, 2, 2, 3, 3, 10};  // many repeat what two show
constexpr int kMostRuns = 3;
constexpr int kLengthyOneIn = 300;  // cases are of leases at their full length
constexpr int kLengthyRuns = 4;
constexpr double kHealingSeconds = 20;  // in which the system takes every fan back
constexpr double kWatchdogSees = 1.2;   // more than one of its rounds
constexpr double kLookSeconds = 2;      // threads that look more often in a long run only cost time
constexpr double kHeatSpeed = 0.1;  // heat that is looked at as seldom need not be reckoned quicker
constexpr double kLongestWeather = 240;  // seconds for which the load stays the same
constexpr double kSlowWatchdog = 20;

int variable(const char* name, int otherwise) {
    const char* text = std::getenv(name);
    return text != nullptr ? std::stoi(text) : otherwise;
}

struct Tally {
    std::set<const FaultKind*> struck;
    std::vector<std::string> complaints;
};

// ---- What goes wrong, and when -----------------------------------------------------------------

struct Strike {
    enum class From { start, taking, handBack };
    const FaultKind* kind;
    Calls at;  // those that it could strike
    From from = From::start;
    double after = 0;       // seconds, from the start
    int skip = 0;           // of these calls are let pass
    bool fansOnly = false;  // of the controller's calls only those about fans
    int passed = 0;
    bool struck = false;
    bool seenFirst = false;  // by the watchdog
};

// The calls that a run makes, whatever happens.
Calls callsOf(const Flow& flow) {
    using enum CallKind;
    return calls({keyInfo, keyRead, open, write, owner}) |
           (flow.controlsFans ? calls({keyWrite, clock}) : 0) |
           (flow.isSession() ? calls({poll, read, threadStart}) : 0) |
           (flow.usesTools() ? calls({probe, tool}) : 0);
}

const FaultKind& drawKind(Calls among, const Flow& flow, Dice& dice) {
    while (true) {
        const FaultKind& kind = dice.oneOf(faultKinds());
        if (kind.canStrike(among, flow)) {
            return kind;
        }
    }
}

Strike drawStrike(const Flow& flow, bool lengthy, Dice& dice) {
    const FaultKind& kind = drawKind(callsOf(flow), flow, dice);
    Strike strike{&kind, kind.calls & callsOf(flow)};
    while (dice.oneIn(3)) {  // or one that is rare, such as a tool's
        const Calls one = Calls{1} << dice.upTo(kCallKinds - 1);
        strike.at = (strike.at & one) != 0 ? one : strike.at;
    }
    strike.fansOnly = flow.controlsFans && !dice.oneIn(3);
    strike.seenFirst = flow.isSession() && dice.oneIn(3);
    if ((strike.at & kController) == 0) {
        strike.skip = dice.upTo(3);  // there are only a few
        return strike;
    }
    strike.skip = dice.upTo((1 << dice.upTo(6)) - 1);  // what is decided is decided in the first
    switch (flow.controlsFans ? dice.upTo(3) : 0) {
        case 1:
            strike.from = Strike::From::taking;
            break;
        case 2:
            strike.from = Strike::From::handBack;
            strike.skip = dice.oneIn(2) ? 0 : strike.skip;
            break;
        case 3:
            strike.after = drawSeconds(dice, lengthy ? std::min(flow.seconds, 1800.0) : 6);
            break;
        default:
            break;
    }
    return strike;
}

// A write that goes wrong just when fans are handed back.
Strike drawRefusal(const Flow& flow, Dice& dice) {
    const Calls write = calls({CallKind::keyWrite});
    const FaultKind* kind = nullptr;
    do {
        kind = &drawKind(write, flow, dice);
    } while (kind->harm != Harm::hit && kind->harm != Harm::late);
    return {.kind = kind,
            .at = write,
            .from = Strike::From::handBack,
            .skip = dice.oneIn(2) ? 0 : dice.upTo(4),
            .fansOnly = true};
}

struct Plan {
    static constexpr long kEnough = std::numeric_limits<long>::max();

    Flow flow = {};
    const FaultKind* found = nullptr;
    std::vector<Strike> strikes = {};
    long memoryAfter = kEnough;  // allocations
    bool memoryForGood = false;
    std::uint64_t orderSeed = 0;  // of the threads
    bool lengthy = false, slowWatchdog = false;

    std::string text() const {
        std::ostringstream text;
        text << flow.name;
        if (flow.cause != nullptr) {
            text << ", until " << flow.ending << " s";
        }
        if (found != nullptr) {
            text << "; found: " << found->name;
        }
        for (const Strike& strike : strikes) {
            text << "; " << strike.kind->name << (strike.struck ? "" : " (missed)");
        }
        if (memoryAfter != kEnough) {
            text << "; memory fails";
        }
        return text.str();
    }
};

Plan drawPlan(const MachineKind& machine, bool lengthy, Dice& dice) {
    Plan plan{.flow = drawFlow(machine, lengthy, dice), .lengthy = lengthy};
    const Flow& flow = plan.flow;
    if (flow.returnsAll ? !dice.oneIn(3) : flow.controlsFans && dice.oneIn(5)) {
        plan.found = &drawKind(calls({CallKind::before}), flow, dice);
    }
    static constexpr int counts[] = {0, 1, 1, 1, 1, 2, 2, 2, 3};
    for (int left = counts[dice.upTo(8)]; left > 0; --left) {
        plan.strikes.push_back(drawStrike(flow, lengthy, dice));
    }
    if (flow.controlsFans && dice.oneIn(4)) {
        plan.strikes.push_back(drawRefusal(flow, dice));
    }
    if (dice.oneIn(lengthy ? 40 : 8)) {
        plan.memoryAfter = dice.upTo((1 << dice.upTo(12)) - 1);
        plan.memoryForGood = dice.oneIn(2);
        plan.strikes.erase(plan.strikes.begin() + (plan.strikes.empty() || dice.oneIn(2) ? 0 : 1),
                           plan.strikes.end());
    }
    plan.slowWatchdog = !lengthy && dice.oneIn(3);
    plan.orderSeed = flow.isSession() && dice.oneIn(3) ? dice.bits() | 1 : 0;
    return plan;
}

// ---- One run of the helper ---------------------------------------------------------------------

class Run {
public:
    Run(simulator::SimulatedMac& mac, Plan& plan, Dice& dice)
        : world_(mac, plan.flow.machine->appleSilicon, plan.orderSeed),
          plan_(plan),
          dice_(dice),
          start_(mac.now()) {
        const Flow& flow = plan.flow;
        if (plan.slowWatchdog) {
            world_.environment.timings.watchdogPoll = kSlowWatchdog;
        }
        if (plan.lengthy) {
            mac.set(simulator::Property::kSpeed, kHeatSpeed);
            world_.pauseSlice = kLookSeconds;
            world_.environment.timings.watchdogPoll = kLookSeconds;
            world_.environment.timings.leasePoll = kLookSeconds;
        }
        if (flow.cause != nullptr) {
            world_.*flow.cause = start_ + flow.ending;
        }
        if (plan.found != nullptr) {
            plan.found->strike(world_, {CallKind::before});
        }
        world_.monitor = flow.monitor;
        world_.beforeCall = [this](const Call& call) { look(call); };
    }

    void run(Tally& tally) {
        Judge judge(world_, plan_.flow, plan_.found);
        judge_ = &judge;
        FailingMemory::failAfter(plan_.memoryAfter, plan_.memoryForGood);
        const int status = world_.run(plan_.flow.words);
        world_.turns.awaitOthers();
        judge.ended(status);
        for (const Strike& strike : plan_.strikes) {
            tally.struck.insert(strike.struck ? strike.kind : plan_.found);
        }
        tally.struck.insert(plan_.found);
        for (const std::string& complaint : judge.complaints) {
            tally.complaints.push_back(plan_.text() + "\n    " + complaint +
                                       "\n    told: " + world_.told());
        }
    }

private:
    void look(const Call& call) {
        taking_ = taking_ || call.takes;
        handBack_ = handBack_ || call.returns;
        if (plan_.lengthy && call.kind == CallKind::owner) {
            changeWeather();
        }
        for (Strike& strike : plan_.strikes) {
            const bool isDue = (strike.from != Strike::From::taking || taking_) &&
                               (strike.from != Strike::From::handBack || handBack_) &&
                               world_.mac.now() >= start_ + strike.after;
            const bool isOfFans = call.key == 0 || call.keyText()[0] == 'F';
            if (!strike.struck && isDue && (strike.at & calls({call.kind})) != 0 &&
                (isOfFans || !strike.fansOnly) && strike.skip == strike.passed++) {
                strike.struck = true;
                judge_->strikes(*strike.kind, call);
                strike.kind->strike(world_, call);
                if (strike.seenFirst && call.mayBeWaitedFor() &&
                    strike.kind->canStrike(calls({CallKind::owner}), plan_.flow)) {
                    world_.letTimePass(kWatchdogSees);
                }
                return;  // one at a call
            }
        }
    }

    void changeWeather() {
        if (world_.mac.now() >= weatherUntil_) {
            weatherUntil_ = world_.mac.now() + drawSeconds(dice_, kLongestWeather);
            world_.mac.set(simulator::Property::kLoad, dice_.upTo(100));
            world_.mac.set(simulator::Property::kAmbient, 5 + dice_.upTo(35));
        }
    }

    FaultWorld world_;
    Plan& plan_;
    Dice& dice_;
    Judge* judge_ = nullptr;
    double start_;
    double weatherUntil_ = 0;
    bool taking_ = false, handBack_ = false;
};

// The machine as its system would have it, for the next run.
void settle(simulator::SimulatedMac& mac) {
    for (int fan = 0; fan < mac.fanCount(); ++fan) {
        mac.otherReleasesFan(fan);
    }
    mac.otherHoldsUnlock(false);
    mac.advance(kHealingSeconds);
}

void runCase(Tally& tally) {
    Dice dice(seedOfCase);
    const MachineKind& machine = drawMachine(dice);
    const bool lengthy = dice.oneIn(kLengthyOneIn);
    const int fans = kFanCounts[dice.upTo(std::size(kFanCounts) - 1)];
    simulator::SimulatedMac mac = machine.make(fans);
    const std::size_t known = tally.complaints.size();
    for (int left = lengthy ? kLengthyRuns : dice.oneIn(4) ? kMostRuns : 1; left > 0; --left) {
        Plan plan = drawPlan(machine, lengthy, dice);
        Run(mac, plan, dice).run(tally);
        if (plan.found != nullptr || tally.complaints.size() > known) {
            break;  // what was done to the machine beforehand is not undone
        }
        if (left > 1) {
            settle(mac);
        }
    }
    for (std::size_t i = known; i < tally.complaints.size(); ++i) {
        tally.complaints[i].insert(0, "seed " + std::to_string(seedOfCase) + ", " + machine.name +
                                          ", fans " + std::to_string(fans) + ": ");
    }
}

TEST(FaultTest, PromisesAreKeptWhateverGoesWrong) {
    const int count = variable("FEROVANE_FAULT_CASES", FEROVANE_EVERYDAY_CASES);
    Tally tally;
    seedOfCase = static_cast<unsigned>(variable("FEROVANE_FAULT_SEED", kEverydaySeed));
    for (int left = count; left > 0 && tally.complaints.size() < kMostComplaints; --left) {
        runCase(tally);
        ++seedOfCase;
    }
    for (const std::string& complaint : tally.complaints) {
        ADD_FAILURE() << complaint;
    }
    // A generator that meets nothing would prove nothing.
    for (const FaultKind& kind : faultKinds()) {
        EXPECT_TRUE(count < kManyCases || HasFailure() || tally.struck.contains(&kind))
            << kind.name;
    }
}

}  // namespace
}  // namespace ferovane::testing
