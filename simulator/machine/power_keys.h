// Keys that show where the power comes from: adapter and battery.
#pragma once

#include <optional>

#include "simulator/machine/world.h"

namespace simulator::PowerKeys {

// The role of a key by its name; kStored for a key that is none of them.
KeyRole roleOf(std::uint32_t code);

// The value of a key with one of these roles. Absent: as stored.
std::optional<double> number(World& world, const KeyRecord& key);

// The battery's current in mA, negative while discharging, and whether it charges.
double batteryMilliamps(World& world);
bool batteryCharging(World& world);

// The published speed limit, percent. A throttled processor shows in it, as long as nobody fixed
// another one.
PropertyValue speedLimit(World& world);

}  // namespace simulator::PowerKeys
