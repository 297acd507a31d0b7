#include "simulator/apple/machine_root.h"

#include "simulator/apple/attached_machine.h"

namespace simulator {

std::string pathOnHost(const std::string& path) {
    AttachedMachine* machine = attachedMachine();
    const bool absolute = !path.empty() && path.front() == '/';
    return machine != nullptr && absolute ? machine->root() + path : path;
}

}  // namespace simulator
