// What the helper is asked to do, on which machines.
#pragma once

#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "tests/faults/fault_world.h"
#include "tests/support/dice.h"

namespace ferovane::testing {

struct MachineKind {
    std::string name;
    bool appleSilicon;
    bool canBeHeld;  // the others refuse every lease
    bool modeKeys;   // "F0Md" …
    bool unlockKey;
    std::function<simulator::SimulatedMac(int fans)> make;
};
const MachineKind& drawMachine(Dice& dice);

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
    const MachineKind* machine = nullptr;

    bool isSession() const { return words.front() == "serve"; }
    bool usesTools() const { return isSession() || turboDisabled >= 0; }
};

// Up to so many, in whole milliseconds, so that no rounding differs.
inline double drawSeconds(Dice& dice, double most) {
    return dice.upTo(static_cast<int>(most * 1000)) / 1000.0;
}

// lengthy: with endings and pauses as long as a lease, else of a few seconds.
Flow drawFlow(const MachineKind& machine, bool lengthy, Dice& dice);

}  // namespace ferovane::testing
