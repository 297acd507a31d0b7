// Which machine this process sees.
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>

#include "simulator/machine/machine.h"
#include "simulator/machine/machine_directory.h"
#include "simulator/machine/simulated_mac.h"

namespace simulator {
namespace {

constexpr int kUsageError = 2;

std::atomic<Machine*> attachedByTest = nullptr;

// A process that was told to run on a simulated Mac must not run on anything else.
Machine* openedFromEnvironment() {
    const char* directory = std::getenv(kMachineVariable);
    if (directory == nullptr || *directory == '\0') {
        return nullptr;
    }
    try {
        return MachineDirectory::open(directory).release();  // for as long as the process lives
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", kMachineVariable, error.what());
        std::_Exit(kUsageError);
    }
}

}  // namespace

Machine* attachedMac() {
    if (Machine* machine = attachedByTest.load(std::memory_order_acquire)) {
        return machine;
    }
    static Machine* const fromEnvironment = openedFromEnvironment();
    return fromEnvironment;
}

AttachedMachine* attachedMachine() {
    return attachedMac();
}

Attachment::Attachment(Machine& machine) {
    Machine* none = nullptr;
    if (!attachedByTest.compare_exchange_strong(none, &machine)) {
        throw std::logic_error("this process is attached to a simulated Mac already");
    }
}

Attachment::~Attachment() {
    attachedByTest.store(nullptr, std::memory_order_release);
}

}  // namespace simulator
