#include "tests/faults/lease_hours.h"

#include <algorithm>
#include <cstdio>
#include <optional>
#include <sstream>
#include <utility>

#include "simulator/machine/machine.h"
#include "tests/faults/judge.h"
#include "tests/faults/lease_draw.h"

namespace ferovane::testing {
namespace {

using simulator::Property;

constexpr double kSecondsPerHour = 3600;
constexpr std::size_t kRunsPerMachine = 24;
constexpr std::size_t kMostComplaints = 20;
constexpr int kFanCounts[] = {1, 1, 2, 2, 10};  // many repeat what two show, and take long

constexpr double kNoticingSeconds = kRivalSeconds + 15;  // some rounds and the hand-back
constexpr double kHandBackSeconds = 60;                  // more than ten fans take that settle late
constexpr double kTakingSeconds = 10;  // in which every fan is taken when nothing is wrong
constexpr double kLongestRunSeconds = 7 * 86400;  // a session waits for a request for a day
constexpr double kSettlingSeconds = 10;           // more than a few delayed writes in a row need
constexpr double kHealingSeconds = 30;            // in which the system takes every fan back
constexpr double kLongestWeather = 240;           // seconds for which the load stays the same
// As long as a round: threads that look more often only cost time.
constexpr double kPollSeconds = 2;
constexpr double kHeatSpeed = 0.1;  // heat that is looked at as seldom need not be reckoned quicker

// The others refuse every lease: their unlock may not be written, or their modes cannot be read.
bool canBeHeld(const MachineKind& machine) {
    return machine.name != "locked" && machine.name != "lower case" && machine.name != "deaf";
}

double awakeSeconds(simulator::SimulatedMac& mac) {
    return mac.machine().locked([](simulator::World& world) {
        return world.state().machineSeconds - world.state().sleptSeconds;
    });
}

// One run of the helper: a lease, or a session with some.
class Run {
public:
    Run(simulator::SimulatedMac mac, const MachineKind& machine, const LeaseDraw& lease, Draw& draw)
        : world_(std::move(mac), machine.appleSilicon, lease.orderSeed),
          machine_(machine),
          lease_(lease),
          draw_(draw),
          start_(world_.mac.now()) {
        world_.mac.set(Property::kSpeed, kHeatSpeed);
        world_.pauseSlice = kPollSeconds;
        world_.environment.timings.watchdogPoll = kPollSeconds;
        world_.environment.timings.leasePoll = kPollSeconds;
        world_.monitor = lease.flow.monitor;
        prepare();
        for (const LeaseDraw::Strike& strike : lease.strikes) {
            strikes_.push_back({&strike, strike.calls, false, false});
        }
        world_.beforeCall = [this](std::uint64_t, const Call& call) { look(call); };
    }

    // The machine afterwards, with nothing wrong any more.
    simulator::SimulatedMac run(LeaseHours& hours, LeaseJournal& journal) {
        Judge judge(world_, lease_.flow);
        judge_ = &judge;
        const int status = world_.run(lease_.flow.words);
        countHeld();
        told_ = world_.output + world_.errors + world_.undelivered;
        checkHeld();
        heal();
        write(journal, status);
        ++hours.runs;
        hours.seconds += held_;
        hours.leases += leases_;
        hours.whole += status == 0;
        hours.told += judge.leftManual;
        for (const Waiting& strike : strikes_) {
            hours.struck[std::string(strike.what->kind->name)] += strike.struck;
        }
        for (const std::string& complaint : judge.complaints) {
            hours.complaints.push_back(lease_.text() + "\n    " + complaint);
        }
        return world_.takeMachine();
    }

private:
    struct Waiting {
        const LeaseDraw::Strike* what;
        std::uint64_t callsLeft;
        bool due, struck;
    };

    // The flow's own moments are those of a short run on a new machine.
    void prepare() {
        lease_.flow.prepare(world_);
        for (double* moment : {&world_.ownerLeavesAt, &world_.stopFileAt, &world_.stopSignalAt}) {
            if (*moment != Turns::kForever) {
                *moment = lease_.endsEarly ? start_ + lease_.ending : Turns::kForever;
            }
        }
        if (lease_.flow.handsOff) {
            world_.spy.otherTook(world_.mac.fanCount() - 1);
        }
    }

    // Before every call; at those that come with a look at the world, a look at the time.
    void look(const Call& call) {
        if (record_ != world_.guardianRecord.size()) {
            countHeld();
        }
        if (call.kind == CallKind::owner || call.kind == CallKind::poll) {
            const double now = world_.mac.now();
            changeWeather(now);
            world_.stopSignal = world_.stopSignal || now > start_ + kLongestRunSeconds;
            for (Waiting& strike : strikes_) {
                strike.due = strike.due || now >= moment(*strike.what);
            }
        }
        for (Waiting& strike : strikes_) {
            if (strike.due && !strike.struck &&
                (strike.callsLeft == 0 || --strike.callsLeft == 0) &&
                strike.what->kind->canStrike(call, lease_.flow)) {
                strike.struck = true;
                ++fired_;
                letStrike(*strike.what->kind, call);
            }
        }
    }

    double moment(const LeaseDraw::Strike& strike) const {
        if (!strike.atHandBack) {
            return start_ + strike.after;
        }
        return lease_.endsEarly       ? start_ + lease_.ending
               : takenAt_.has_value() ? *takenAt_ + lease_.leaseSeconds
                                      : Turns::kForever;
    }

    void letStrike(const FaultKind& kind, const Call& call) {
        if (kind.settlesLate) {
            judge_->settlingSeconds = kSettlingSeconds;
        }
        kind.strike(world_, call);
        rivalSince_ = &kind == &kRival && holding_ ? awakeSeconds(world_.mac) : rivalSince_;
    }

    void changeWeather(double now) {
        if (now >= weatherUntil_) {
            weatherUntil_ = now + draw_.seconds(kLongestWeather);
            world_.mac.set(Property::kLoad, static_cast<double>(draw_.below(101)));
            world_.mac.set(Property::kAmbient, static_cast<double>(5 + draw_.below(36)));
        }
    }

    // The guardian is told of the first fan that is taken, and of the last that was returned. What
    // nobody gave back counts for nothing, so that a fan left alone makes no hours.
    void countHeld() {
        const double now = awakeSeconds(world_.mac);
        const std::string& record = world_.guardianRecord;
        record_ = record.size();
        const bool holds = record_ >= 5 && record.compare(record_ - 5, 5, "held ") == 0;
        if (holds && !takenAt_) {
            takenAt_ = world_.mac.now();
        }
        if (holds != holding_) {
            const double held = now - since_;
            leases_ += holds;
            held_ += holds ? 0 : std::min(held, lease_.longestSeconds);
            ignored_ = ignored_ || (!holds && now - rivalSince_ > kNoticingSeconds);
            rivalSince_ = Turns::kForever;
            outlasted_ = outlasted_ || (!holds && held > lease_.longestSeconds + kHandBackSeconds);
            since_ = now;
        }
        holding_ = holds;
    }

    void complain(const std::string& text) { judge_->complaints.push_back(text); }

    void checkHeld() {
        const bool inTime = !lease_.endsEarly || lease_.ending > kTakingSeconds;
        if (fired_ == 0 && leases_ == 0 && inTime && !lease_.flow.handsOff && canBeHeld(machine_)) {
            complain("nothing held with nothing wrong: " + told_);
        }
        if (outlasted_ && told_.find("恢复自动风扇失败") == std::string::npos) {
            complain("fans held for longer than a lease may");
        }
        if (ignored_ && fired_ == 1) {
            complain("a lease that went on while another program set its target");
        }
    }

    // What is left manual is the guardian's, which runs the helper again; then the other programs
    // leave as well.
    void heal() {
        world_.mac.advance(kSettlingSeconds);
        if (judge_->leftManual || judge_->liedTo) {
            world_.run({"auto"});
        }
        if (!world_.spy.fansLeftManual().empty()) {
            complain("a later auto could not help either");
        }
        for (int fan = 0; fan < world_.mac.fanCount(); ++fan) {
            if (world_.mac.fanManual(fan)) {
                world_.mac.otherReleasesFan(fan);
            }
        }
        world_.mac.otherHoldsUnlock(false);
        world_.mac.advance(kHealingSeconds);
        if (!world_.mac.allFansAutomatic()) {
            complain("a machine with nothing wrong has a fan that is not automatic");
        }
    }

    void write(LeaseJournal& journal, int status) {
        for (const std::string& line : world_.mac.journal()) {
            journal.addMachineLine(line);
        }
        world_.mac.clearJournal();
        journal.add("status " + std::to_string(status) + ", told: " + told_);
    }

    FaultWorld world_;
    const MachineKind& machine_;
    const LeaseDraw& lease_;
    Draw& draw_;
    Judge* judge_ = nullptr;
    std::string told_;
    double start_;
    double weatherUntil_ = 0;
    std::vector<Waiting> strikes_;
    std::size_t fired_ = 0;
    // Held fans, as the guardian is told of them.
    std::size_t record_ = 0;
    bool holding_ = false;
    double since_ = 0;
    double held_ = 0;
    std::size_t leases_ = 0;
    bool outlasted_ = false;
    double rivalSince_ = Turns::kForever;
    bool ignored_ = false;
    std::optional<double> takenAt_;
};

void simulateMachine(std::uint64_t seed, double untilSeconds, LeaseHours& hours,
                     LeaseJournal& journal) {
    Draw draw(seed);
    const MachineKind& machine = *draw.oneOf(smallMachines());
    const int fans = kFanCounts[draw.below(std::size(kFanCounts))];
    journal.add("seed " + std::to_string(seed) + ": " + machine.name + ", fans " +
                std::to_string(fans));
    auto mac = std::make_unique<simulator::SimulatedMac>(machine.make(fans));
    const std::size_t known = hours.complaints.size();
    for (std::size_t i = 0;
         i < (canBeHeld(machine) ? kRunsPerMachine : 2) && hours.seconds < untilSeconds; ++i) {
        const LeaseDraw lease(machine, fans, draw);
        journal.add(lease.text());
        Run run(std::move(*mac), machine, lease, draw);
        mac = std::make_unique<simulator::SimulatedMac>(run.run(hours, journal));
    }
    for (std::size_t i = known; i < hours.complaints.size(); ++i) {
        hours.complaints[i].insert(0, "machine of seed " + std::to_string(seed) + ": ");
    }
}

}  // namespace

LeaseHours simulateLeaseHours(double hours, std::uint64_t seed, std::ostream* file) {
    LeaseHours done;
    LeaseJournal journal(file);
    while (done.seconds < hours * kSecondsPerHour && done.complaints.size() < kMostComplaints) {
        simulateMachine(seed++, hours * kSecondsPerHour, done, journal);
    }
    done.sum = journal.sum();
    done.bytes = journal.bytes();
    done.lines = journal.lines();
    return done;
}

void LeaseHours::print(std::uint64_t seed) const {
    std::size_t strikes = 0;
    for (const auto& [kind, count] : struck) {
        std::printf("  %8zu  %s\n", count, kind.c_str());
        strikes += count;
    }
    std::printf(
        "seed %llu: %.1f lease hours, %zu runs, %zu leases, %zu without a failure, "
        "%zu faults, %zu left a fan manual and told so, %zu broken promises\n",
        static_cast<unsigned long long>(seed), seconds / kSecondsPerHour, runs, leases, whole,
        strikes, told, complaints.size());
    std::printf("journal: %llu lines, %llu bytes, sum %016llx\n",
                static_cast<unsigned long long>(lines), static_cast<unsigned long long>(bytes),
                static_cast<unsigned long long>(sum));
}

}  // namespace ferovane::testing
