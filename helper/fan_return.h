// Handing every fan of the machine back to the system.
#pragma once

#include "core/fan/cooling_hardware.h"

namespace ferovane {

// Returns every fan to system automatic and confirms it; throws when the machine shows no fan, or
// naming each fan that could not be given back.
void returnEveryFan(CoolingHardware& hardware);

}  // namespace ferovane
