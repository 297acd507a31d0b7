// What the helper is asked to do, on which machines.
#pragma once

#include <functional>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "tests/faults/fault_world.h"
#include "tests/support/dice.h"

namespace ferovane::testing {

struct MachineKind {
    std::string name;
    bool appleSilicon;
    bool canBeHeld;  // the others refuse every lease
    std::function<simulator::SimulatedMac(int fans)> make;
};
const std::vector<MachineKind>& machines();

struct Flow {
    static constexpr double kNever = std::numeric_limits<double>::infinity();

    std::string name;
    std::vector<std::string> words = {};  // of the command line
    std::vector<MonitorStep> monitor = {};
    bool controlsFans = false;            // may write to them
    bool lease = false;                   // one-shot: takes them
    bool cooling = false;                 // at their maximum
    bool returnsAll = false;              // whoever took them
    int turboDisabled = -1;               // after a success; -1: as before
    double seconds = kNever;              // for which a fan may be held without a break
    double ending = kNever;               // when a cause to stop comes, in seconds after the start
    double FaultWorld::*cause = nullptr;  // which

    bool isSession() const { return words.front() == "serve"; }
    bool usesTools() const { return isSession() || turboDisabled >= 0; }
};

// Up to so many, in whole milliseconds, so that no rounding differs.
inline double drawSeconds(Dice& dice, double most) {
    return dice.upTo(static_cast<int>(most * 1000)) / 1000.0;
}

// lengthy: with endings and pauses as long as a lease, else of a few seconds.
Flow drawFlow(const MachineKind& machine, bool lengthy, Dice& dice);

// What a machine may be like, or a caller, so that no fan may be taken; and what it may be like
// without that.
struct Condition {
    std::string_view name;
    bool refuses;
    bool (*applies)(const MachineKind& machine, const Flow& flow);
    void (*prepare)(FaultWorld& world, Flow& flow);
};
const std::vector<Condition>& conditions();

}  // namespace ferovane::testing
