// fault
#include <cstdio>

#include "simulator/machine/faults.h"
#include "simulator/machine/machine.h"
#include "simulator/machine/simulated_mac.h"
#include "simulator/tools/command.h"

namespace simulator::tools {
namespace {

void printFaultHelp() {
    std::puts("Kinds of fault, now or at a moment to come:");
    for (const std::string& line : Faults::help()) {
        std::printf("  %s\n", line.c_str());
    }
    std::fputs(
        "Each kind also takes\n"
        "  times=N      strikes that often; without it, for good\n"
        "  in=SECONDS   from that moment on\n"
        "  call=K       from the K-th controller call from now\n"
        "  write=K      from the K-th controller write from now\n"
        "A code is a result byte (0x82) or an IOKit code (0xE00002C1).\n",
        stdout);
}

int list(SimulatedMac& mac) {
    const auto faults = mac.machine().locked([](World& world) { return Faults::pending(world); });
    for (const FaultRecord& fault : faults) {
        std::printf("%s\n", Faults::text(fault).c_str());
    }
    return 0;
}

}  // namespace

int fault(const Words& words) {
    if (words.size() == 1 && words[0] == "--help") {
        printFaultHelp();
        return 0;
    }
    SimulatedMac mac = openMachineDirectory(directoryIn(words));
    if (words.size() < 2) {
        throw UsageError("name a fault, list or clear");
    }
    if (words.size() == 2 && words[1] == "list") {
        return list(mac);
    }
    mac.machine().locked([&words](World& world) {
        FaultRecord record = {};
        try {
            record = Faults::parse(world, {words.begin() + 1, words.end()});
        } catch (const std::runtime_error& error) {
            throw UsageError(error.what());
        }
        Faults::befall(world, record);
    });
    return 0;
}

}  // namespace simulator::tools
