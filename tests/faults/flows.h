// What the helper is asked to do, on which machines.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tests/faults/fault_world.h"

namespace ferovane::testing {

struct MachineKind {
    std::string_view name;
    bool appleSilicon;
    simulator::SimulatedMac (*make)(int fans);
};
const std::vector<MachineKind>& machineKinds();

struct Flow {
    std::string_view name;
    std::vector<std::string> words;  // of the command line
    std::vector<MonitorStep> monitor = {};
    void (*prepare)(FaultWorld& world) = [](FaultWorld&) {};
    bool intelOnly = false;
    bool controlsFans = true;
    // A fan belongs to another program from the start: nothing may be written.
    bool handsOff = false;
    // Returning every fan is what is asked for, whoever took it.
    bool returnsAll = false;
    bool changesPower = false;

    bool isSession() const { return words.front() == "serve"; }
};
const std::vector<Flow>& flows();

}  // namespace ferovane::testing
