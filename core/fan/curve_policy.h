// The rules that override a curve when the machine is hot.
#pragma once

#include "core/model/snapshot.h"

namespace ferovane::CurvePolicy {

// Where a speed lies in a rated range, 0 to 100 percent; 0 when the three make no range.
double percent(double rpm, double minimum, double maximum);

// Whether the machine is so hot that its fans belong at full speed, whatever a curve says. A
// temperature that is not available does not count.
bool requiresMaximum(const Snapshot& snapshot);

// Whether the machine is that hot while every fan is known to run in the lowest tenth of its range.
bool highTemperatureWithLowFanSpeed(const Snapshot& snapshot);

}  // namespace ferovane::CurvePolicy
