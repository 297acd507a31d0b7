// One fan under the controller's own control, and its motor.
#pragma once

#include "simulator/machine/world_state.h"

namespace simulator::AutomaticFan {

// A target moves only by at least this much; one that is closer to the minimum is the minimum.
inline constexpr double kDeadBandRpm = 10;

// Writes the target that the present heat asks for.
void control(const WorldState& state, FanRecord& fan);

// The speed at which the motor settles with the present target.
double steadyRpm(const WorldState& state, const FanRecord& fan);

// Lets the motor turn for dt seconds; dt is short.
void turn(const WorldState& state, FanRecord& fan, double dt);

}  // namespace simulator::AutomaticFan
