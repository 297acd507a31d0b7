// What the host-side stand-ins (clocks, sysctl, process information, tools) ask of the simulated
// Mac that this process is attached to. simulator/machine implements it.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace simulator {

class AttachedMachine {
public:
    virtual ~AttachedMachine() = default;

    // Nothing, or an empty text, where the machine does not publish it.
    virtual std::string cpuBrand() = 0;       // "machdep.cpu.brand_string"
    virtual bool appleSilicon() = 0;          // "hw.optional.arm64" exists
    virtual std::string systemVersion() = 0;  // "kern.osproductversion", such as "14.2.1"
    virtual std::optional<double> processorCount() = 0;
    virtual std::optional<double> thermalState() = 0;  // 0 to 3
    virtual std::optional<double> lowPowerMode() = 0;  // 0 or 1
    virtual std::optional<double> memoryPressureLevel() = 0;

    // The machine's clocks in seconds, given the host's: equal to the host's plus what the machine
    // has slept, or the machine's own virtual time.
    virtual double continuousSeconds(double hostSeconds) = 0;
    virtual double uptimeSeconds(double hostSeconds) = 0;

    // Directory under which absolute paths of system tools and bundles are looked up.
    virtual std::string root() = 0;

    // Takes a line that this process writes to the machine's log; may take its time.
    virtual void log(std::string_view line) = 0;
};

// The machine named by FEROVANE_SIMULATED_MAC (looked up at the first call) or attached by a test;
// null when there is none, and then nothing is simulated. Any thread.
AttachedMachine* attachedMachine();

}  // namespace simulator
