// What the power tool prints about a machine, in its real layout.
#pragma once

#include "simulator/machine/simulated_mac.h"

namespace simulator::tools {

// "-g custom": every source's settings. Sections and lines stand in another order every time, as
// the real tool fixes none.
void printCustom(SimulatedMac& mac);
void printLive(SimulatedMac& mac);        // "-g"
void printAssertions(SimulatedMac& mac);  // "-g assertions"
void printThermal(SimulatedMac& mac);     // "-g therm"

}  // namespace simulator::tools
