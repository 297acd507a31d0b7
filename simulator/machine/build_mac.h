// Making a SimulatedMac of a plan and keys.
#pragma once

#include <vector>

#include "simulator/machine/key_table.h"
#include "simulator/machine/model.h"
#include "simulator/machine/simulated_mac.h"

namespace simulator {

SimulatedMac macInMemory(const MachinePlan& plan, const std::vector<KeyDefinition>& keys,
                         double startLoad = -1);
SimulatedMac makeMac(std::unique_ptr<Machine> machine);

}  // namespace simulator
