#include "simulator/apple/attached_machine.h"

namespace simulator {

// For programs without a simulated machine.
__attribute__((weak)) AttachedMachine* attachedMachine() {
    return nullptr;
}

}  // namespace simulator
