// How a lease follows a curve from round to round, and the rules that override it when the machine
// is hot. All of it may be called from any thread.
#pragma once

#include <optional>

#include "core/model/snapshot.h"

namespace ferovane::CurvePolicy {

// Where a speed lies in a rated range, 0 to 100 percent; 0 when the three make no range.
double percent(double rpm, double minimum, double maximum);

// The speed at a percentage of a rated range, in rpm.
double rpm(double percent, double minimum, double maximum);

// A round's percentage, 0 to 100, when the curve asks for `desired`: a rise is followed at once, a
// fall from the round before by so much at a time that nobody hears it. `previous` is absent in the
// first round, which goes straight to it.
double followed(std::optional<double> previous, double desired);

// Whether a target is far enough from the last one written, in rpm, to be written at all.
bool isWorthWriting(double last, double rpm);

// Whether the machine is so hot that its fans belong at full speed, whatever a curve says. A
// temperature that is not available does not count.
bool requiresMaximum(const Snapshot& snapshot);

// The same of a machine of which nothing but the processor's temperature is known.
bool requiresMaximum(double cpuCelsius);

// Whether the machine is that hot while every fan is known to run in the lowest tenth of its range.
bool highTemperatureWithLowFanSpeed(const Snapshot& snapshot);

}  // namespace ferovane::CurvePolicy
