// Which keys follow heat and power, and how strongly.
#pragma once

#include "simulator/machine/world.h"

namespace simulator::HeatKeys {

// Connects every key that shows a temperature, a power or a current of something that lives. Call
// it when the heat is calibrated: each key keeps the value of its dump at rest, and follows its
// node in the proportion in which it stood above the room. Constants, limits, set points, relative
// values and sensors without reading keep their bytes.
void connect(World& world);

// The temperature of the die as a key dump shows it, °C; 45 where it has no such key.
double dieTemperature(World& world);

}  // namespace simulator::HeatKeys
