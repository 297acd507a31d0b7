// What momentary happenings do to a machine.
#pragma once

#include "simulator/machine/faults.h"

namespace simulator::HappeningEffects {

// Lets one happen and writes it into the journal.
void apply(World& world, const FaultRecord& happening);

// A write by another program; false when there is no such key or it cannot hold the number.
bool writeAsOther(World& world, std::uint32_t key, double number);

}  // namespace simulator::HappeningEffects
