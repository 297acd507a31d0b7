// The whole helper on simulated machines, with whatever can go wrong going wrong: what it is asked
// to do, on what, and what befalls it are drawn by a seed.
//
//     FEROVANE_FAULT_SEED=N    the first seed; each case has one of its own, counted up from it
//     FEROVANE_FAULT_CASES=N   how many; one alone is told in full
//     FEROVANE_LEASE_HOURS=N   how long fans are to be held in the long runs
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <limits>
#include <map>
#include <sstream>

#include "tests/faults/failing_memory.h"
#include "tests/faults/judge.h"

namespace ferovane::testing {
namespace {

constexpr std::uint64_t kEverydaySeed = 1;
constexpr std::size_t kMostComplaints = 16;
constexpr int kFanCounts[] = {1, 1, 1, 2, 2, 2, 2, 3, 3, 10};  // many repeat what two show
constexpr std::uint64_t kMostRuns = 3;
constexpr std::uint64_t kLengthyRuns = 12;
constexpr double kHealingSeconds = 60;  // in which the system takes every fan back
constexpr double kSecondsPerHour = 3600;
constexpr double kWatchdogSees = 0.7;  // more than one of its rounds
constexpr double kLookSeconds = 2;     // threads that look more often in a long run only cost time
constexpr double kHeatSpeed = 0.1;  // heat that is looked at as seldom need not be reckoned quicker
constexpr double kLongestWeather = 240;  // seconds for which the load stays the same

double variable(const char* name, double otherwise) {
    const char* text = std::getenv(name);
    return text != nullptr ? std::stod(text) : otherwise;
}

struct Tally {
    std::map<std::string_view, std::size_t> struck;
    double heldSeconds = 0;
    std::uint64_t sum = 0xCBF29CE484222325;  // 64-bit FNV-1a of every write and the time it took
    std::vector<std::string> complaints;

    void add(const std::string& text) {
        for (const char c : text) {
            sum = (sum ^ static_cast<unsigned char>(c)) * 0x100000001B3;
        }
    }
};

// ---- What goes wrong, and when -----------------------------------------------------------------

struct Strike {
    enum class From { start, taking, handBack };
    const FaultKind* kind;
    From from;
    double after;        // seconds, from the start
    std::uint64_t skip;  // calls that it could strike are let pass
    std::uint64_t passed = 0;
    bool struck = false;
    bool seenFirst = false;  // by the watchdog
};

// Few calls more often than many: what is decided is decided in the first.
std::uint64_t drawSkip(Draw& draw) {
    return draw.below(std::uint64_t{1} << draw.below(7));
}

// Whether a run makes a call, among these kinds of calls, that the fault can strike.
bool meets(const FaultKind& kind, const Flow& flow, std::initializer_list<CallKind> calls) {
    return std::any_of(calls.begin(), calls.end(),
                       [&](CallKind call) { return kind.canStrike({call}, flow); });
}

bool mayMeet(const FaultKind& kind, const Flow& flow) {
    using C = CallKind;
    const bool usesTools = flow.isSession() || flow.turboDisabled >= 0;
    return meets(kind, flow, {C::keyInfo, C::keyRead, C::open, C::write, C::owner}) ||
           (flow.controlsFans && meets(kind, flow, {C::keyWrite, C::clock})) ||
           (flow.isSession() && meets(kind, flow, {C::poll, C::read, C::threadStart})) ||
           (usesTools && meets(kind, flow, {C::probe, C::tool}));
}

Strike drawStrike(const Flow& flow, bool lengthy, Draw& draw) {
    Strike strike{&draw.oneOf(faultKinds()), Strike::From::start, 0, drawSkip(draw)};
    while (!mayMeet(*strike.kind, flow)) {
        strike.kind = &draw.oneOf(faultKinds());
    }
    strike.seenFirst = flow.isSession() && draw.oneIn(3);
    if (!meets(*strike.kind, flow, {CallKind::keyInfo, CallKind::keyRead, CallKind::keyWrite})) {
        strike.skip %= 4;  // of these there are only a few
        return strike;
    }
    switch (draw.below(flow.controlsFans ? 4 : 1)) {
        case 1:
            strike.from = Strike::From::taking;
            break;
        case 2:
            strike.from = Strike::From::handBack;
            strike.skip = draw.oneIn(2) ? 0 : strike.skip;
            break;
        case 3:
            strike.after = draw.seconds(lengthy ? std::min(flow.seconds, 1800.0) : 6);
            break;
        default:
            break;
    }
    return strike;
}

struct Plan {
    static constexpr long kEnough = std::numeric_limits<long>::max();

    Flow flow = {};
    const Condition* condition = nullptr;
    std::vector<Strike> strikes = {};
    long memoryAfter = kEnough;  // allocations
    bool memoryForGood = false;
    std::uint64_t orderSeed = 0;  // of the threads
    bool lengthy = false;

    std::string text() const {
        std::ostringstream text;
        text << flow.name;
        if (flow.cause != nullptr) {
            text << ", until " << flow.ending << " s";
        }
        if (condition != nullptr) {
            text << "; " << condition->name;
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

Plan drawPlan(const MachineKind& machine, bool lengthy, Draw& draw) {
    Plan plan{.flow = drawFlow(machine, lengthy, draw), .lengthy = lengthy};
    if (draw.oneIn(5) && (plan.flow.lease || plan.flow.isSession())) {
        const Condition& condition = draw.oneOf(conditions());
        plan.condition = condition.applies(machine, plan.flow) ? &condition : nullptr;
    }
    static constexpr std::size_t counts[] = {0, 1, 1, 1, 1, 2, 2, 2, 3};
    for (std::size_t left = counts[draw.below(std::size(counts))]; left > 0; --left) {
        plan.strikes.push_back(drawStrike(plan.flow, lengthy, draw));
    }
    if (draw.oneIn(lengthy ? 40 : 8)) {
        plan.memoryAfter = static_cast<long>(draw.below(std::uint64_t{1} << draw.below(13)));
        plan.memoryForGood = draw.oneIn(2);
        plan.strikes.resize(std::min<std::size_t>(plan.strikes.size(), draw.below(2)));
    }
    plan.orderSeed = plan.flow.isSession() && draw.oneIn(3) ? draw.below(1000) + 1 : 0;
    return plan;
}

// ---- One run of the helper ---------------------------------------------------------------------

class Run {
public:
    Run(simulator::SimulatedMac& mac, const MachineKind& machine, Plan& plan, Draw& draw)
        : world_(mac, machine.appleSilicon, plan.orderSeed),
          machine_(machine),
          plan_(plan),
          draw_(draw),
          start_(mac.now()) {
        Flow& flow = plan.flow;
        if (plan.condition != nullptr) {
            plan.condition->prepare(world_, flow);
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
        world_.monitor = flow.monitor;
        world_.beforeCall = [this](const Call& call) { look(call); };
    }

    void run(Tally& tally) {
        Judge judge(world_, machine_, plan_.flow, plan_.condition);
        judge_ = &judge;
        FailingMemory::failAfter(plan_.memoryAfter, plan_.memoryForGood);
        const int status = world_.run(plan_.flow.words);
        world_.turns.awaitOthers();
        judge.ended(status);
        tally.heldSeconds += judge.heldSeconds;
        for (const Strike& strike : plan_.strikes) {
            tally.struck[strike.kind->name] += strike.struck;
        }
        heal(judge);
        for (const std::string& complaint : judge.complaints) {
            tally.complaints.push_back(plan_.text() + "\n    " + complaint +
                                       "\n    told: " + told_);
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
            const bool due = strike.from == Strike::From::taking     ? taking_
                             : strike.from == Strike::From::handBack ? handBack_
                                                                     : true;
            if (!strike.struck && due && world_.mac.now() >= start_ + strike.after &&
                strike.kind->canStrike(call, plan_.flow) && strike.skip == strike.passed++) {
                strike.struck = true;
                judge_->strikes(*strike.kind, call);
                strike.kind->strike(world_, call);
                const bool isFromOutside = meets(*strike.kind, plan_.flow, {CallKind::owner});
                if (strike.seenFirst && isFromOutside && !call.mayHoldLock()) {
                    world_.letTimePass(kWatchdogSees);
                }
            }
        }
    }

    void changeWeather() {
        if (world_.mac.now() >= weatherUntil_) {
            weatherUntil_ = world_.mac.now() + draw_.seconds(kLongestWeather);
            world_.mac.set(simulator::Property::kLoad, static_cast<double>(draw_.below(101)));
            world_.mac.set(simulator::Property::kAmbient, 5 + static_cast<double>(draw_.below(36)));
        }
    }

    // What is left manual is the guardian's, which runs the helper again; then the other programs
    // leave as well.
    void heal(Judge& judge) {
        told_ = world_.told();
        world_.beforeFanWrite = nullptr;
        world_.afterControllerCall = nullptr;
        world_.run({"auto"});
        if (judge.isLeft && !world_.fansTaken().empty()) {
            judge.complaints.push_back("a later auto could not help either");
        }
    }

    FaultWorld world_;
    const MachineKind& machine_;
    Plan& plan_;
    Draw& draw_;
    Judge* judge_ = nullptr;
    double start_;
    double weatherUntil_ = 0;
    bool taking_ = false, handBack_ = false;
    std::string told_;
};

// The machine as its system would have it, for the next run.
void settle(simulator::SimulatedMac& mac) {
    for (int fan = 0; fan < mac.fanCount(); ++fan) {
        mac.otherReleasesFan(fan);
    }
    mac.otherHoldsUnlock(false);
    mac.advance(kHealingSeconds);
}

void runCase(std::uint64_t seed, bool lengthy, Tally& tally) {
    Draw draw(seed);
    const bool builtIn = draw.oneIn(40) && !lengthy;
    const MachineKind& machine = draw.oneOf(builtIn ? builtInMachines() : smallMachines());
    const int fans = kFanCounts[draw.below(std::size(kFanCounts))];
    simulator::SimulatedMac mac = machine.make(fans);
    const std::size_t known = tally.complaints.size();
    for (std::uint64_t left = lengthy         ? kLengthyRuns
                              : draw.oneIn(4) ? kMostRuns
                                              : 1;
         left > 0; --left) {
        Plan plan = drawPlan(machine, lengthy, draw);
        Run(mac, machine, plan, draw).run(tally);
        tally.add(mac.writes() + std::to_string(mac.now()));
        mac.clearJournal();
        if (plan.condition != nullptr || tally.complaints.size() > known) {
            break;  // what was done to the machine beforehand is not undone
        }
        settle(mac);
    }
    for (std::size_t i = known; i < tally.complaints.size(); ++i) {
        tally.complaints[i].insert(0, "seed " + std::to_string(seed) + ", " + machine.name +
                                          ", fans " + std::to_string(fans) + ": ");
    }
}

Tally runCases(std::uint64_t seed, std::uint64_t count) {
    Tally tally;
    for (; count > 0 && tally.complaints.size() < kMostComplaints; --count) {
        runCase(seed++, false, tally);
    }
    return tally;
}

void expectNoComplaints(const Tally& tally) {
    for (const std::string& complaint : tally.complaints) {
        ADD_FAILURE() << complaint;
    }
}

const auto kSeed = static_cast<std::uint64_t>(variable("FEROVANE_FAULT_SEED", kEverydaySeed));

TEST(FaultTest, PromisesAreKeptWhateverGoesWrong) {
    const auto count =
        static_cast<std::uint64_t>(variable("FEROVANE_FAULT_CASES", FEROVANE_EVERYDAY_CASES));
    const Tally tally = runCases(kSeed, count);
    expectNoComplaints(tally);
    // A generator that meets nothing would prove nothing.
    for (const FaultKind& kind : faultKinds()) {
        if (count > 5000 && tally.complaints.empty()) {
            EXPECT_GT(tally.struck.at(kind.name), 0U) << kind.name;
        }
    }
}

TEST(FaultTest, PromisesAreKeptForHours) {
    const double hours = variable("FEROVANE_LEASE_HOURS", FEROVANE_EVERYDAY_LEASE_HOURS);
    Tally tally;
    for (std::uint64_t seed = kSeed;
         tally.heldSeconds < hours * kSecondsPerHour && tally.complaints.size() < kMostComplaints;
         ++seed) {
        runCase(seed, true, tally);
    }
    expectNoComplaints(tally);
}

TEST(FaultTest, TheSameSeedGivesTheSameRuns) {
    constexpr std::uint64_t kFew = 100;
    EXPECT_EQ(runCases(kSeed, kFew).sum, runCases(kSeed, kFew).sum);
    EXPECT_NE(runCases(kSeed, kFew).sum, runCases(kSeed + kFew, kFew).sum);
}

}  // namespace
}  // namespace ferovane::testing
