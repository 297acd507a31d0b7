// What the machine's own tools share: their journal line, their faults, their privilege.
#pragma once

#include <string>

#include "simulator/machine/simulated_mac.h"
#include "simulator/tools/command.h"

namespace simulator::tools {

// One run of a machine's tool. Faults that concern its way of running strike in the constructor and
// may end or hang the process there.
class MachineTool {
public:
    // words: the machine directory, then the tool's arguments.
    MachineTool(const char* name, const Words& words);

    SimulatedMac& mac() { return mac_; }
    const Words& arguments() const { return arguments_; }
    bool privileged();
    // Whether what the tool is asked to change is to stay as it is.
    bool withoutEffect();
    // Writes the journal line and returns the status.
    int finish(int status);

private:
    void strikeFaults();

    std::string name_;
    Words arguments_;
    SimulatedMac mac_;
};

}  // namespace simulator::tools
