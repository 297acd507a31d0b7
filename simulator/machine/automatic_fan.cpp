#include "simulator/machine/automatic_fan.h"

#include <algorithm>
#include <cmath>

namespace simulator::AutomaticFan {
namespace {

// The automatic control asks for full speed here, and for the minimum up to kQuietUntil.
constexpr double kFullSpeedAt = 95;         // °C
constexpr double kFullSpeedAboveRest = 10;  // K, for machines that are hot already at rest
constexpr double kQuietUntil = 60;
constexpr double kQuietAboveRest = 8;
constexpr double kStopBelow = 45;  // °C: where fans may rest
constexpr double kStartAbove = 55;

// From standstill to 5000 rpm in four seconds, on to 7000 in about as many, down in one.
constexpr double kMotorSeconds = 0.5;
constexpr double kStartRpmPerSecond = 1500;
constexpr double kSlowdownPerRpm = 0.13;
constexpr double kBrakeRpmPerSecond = 7000;
constexpr double kSettledRpm = 0.01;
// Apple Silicon fans stay 200 to 300 rpm below a high target, Intel ones within 0.2 percent.
constexpr double kSlipAboveMinimum = 0.045;
constexpr double kIntelSlip = 0.0014;

double automaticFraction(const WorldState& state, const FanRecord& fan) {
    const double rest = state.heat.rest[static_cast<std::size_t>(HeatNode::kDie)];
    const double full = std::max(kFullSpeedAt, rest + kFullSpeedAboveRest);
    const double from =
        fan.restFraction > 0 ? rest : std::min(std::max(kQuietUntil, rest + kQuietAboveRest), full);
    const double part = (state.heat.controlTemperature - from) / std::max(full - from, 1.0);
    return std::clamp(fan.restFraction + (1 - fan.restFraction) * part, 0.0, 1.0);
}

bool mayRest(const WorldState& state, const FanRecord& fan) {
    return state.fansMayRest != 0 && fan.mode == state.automaticMode;
}

double automaticTarget(const WorldState& state, FanRecord& fan) {
    const double heat = state.heat.controlTemperature;
    if (!mayRest(state, fan) || heat > kStartAbove) {
        fan.resting = 0;
    } else if (heat < kStopBelow) {
        fan.resting = 1;
    }
    if (fan.resting != 0) {
        return 0;
    }
    return fan.minimum + automaticFraction(state, fan) * (fan.maximum - fan.minimum);
}

}  // namespace

void control(const WorldState& state, FanRecord& fan) {
    const double target = automaticTarget(state, fan);
    const bool atLimit = target <= fan.minimum || target >= fan.maximum;
    const bool outside = fan.target < fan.minimum || fan.target > fan.maximum;
    if (std::abs(target - fan.target) >= kDeadBandRpm || atLimit || outside) {
        fan.target = target;
    }
}

double steadyRpm(const WorldState& state, const FanRecord& fan) {
    const double slip = state.appleSilicon != 0
                            ? kSlipAboveMinimum * std::max(fan.target - fan.minimum, 0.0)
                            : kIntelSlip * fan.target;
    return std::min(fan.target - slip, fan.reachable);
}

void turn(const WorldState& state, FanRecord& fan, double dt) {
    const double goal = steadyRpm(state, fan);
    const double wanted = (goal - fan.rpm) * (1 - std::exp(-dt / kMotorSeconds));
    const double faster = std::max(kStartRpmPerSecond - kSlowdownPerRpm * fan.rpm, 100.0) * dt;
    fan.rpm += std::clamp(wanted, -kBrakeRpmPerSecond * dt, faster);
    if (std::abs(goal - fan.rpm) < kSettledRpm) {
        fan.rpm = goal;
    }
}

}  // namespace simulator::AutomaticFan
