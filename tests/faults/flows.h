// What the helper is asked to do, on which machines.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/faults/fault_world.h"

namespace ferovane::testing {

struct MachineKind {
    std::string name;
    bool appleSilicon;
    std::function<simulator::SimulatedMac(int fans)> make;
    int ownFans = 0;  // what it has whatever is asked for; 0: as many as are asked for
};
// Small machines with few keys, and after them the built-in machines that have fans.
const std::vector<MachineKind>& machineKinds();
std::vector<const MachineKind*> smallMachines();
std::vector<const MachineKind*> builtInMachines();

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
