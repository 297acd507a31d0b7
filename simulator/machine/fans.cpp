#include "simulator/machine/fans.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

namespace simulator::Fans {
namespace {

constexpr int kOk = 0;
constexpr int kBadParameter = 0x83;

// After the unlock the system lets go of its fans within three to four seconds; after the unlock is
// lost it takes them back within four to five.
constexpr double kReleaseSeconds = 3.5;
constexpr double kRetakeSeconds = 4.5;

void noteSystem(World& world, std::size_t fan, std::uint32_t mode) {
    char text[32];
    std::snprintf(text, sizeof text, "F%zuMd=%u", fan, mode);
    world.note(kSystemItself, text);
}

ManualModeRule manualModeRule(const WorldState& state) {
    const auto number = state.properties[static_cast<std::size_t>(Property::kManualMode)].number;
    return static_cast<ManualModeRule>(static_cast<std::uint32_t>(number));
}

bool locks(const WorldState& state) {
    return manualModeRule(state) == ManualModeRule::kRefusedUntilUnlocked;
}

// A fan that is out of the system's hands without the unlock is taken back before long.
void expectRetake(WorldState& state) {
    if (locks(state) && state.unlock == 0) {
        state.unlockLostTime = state.machineSeconds + kRetakeSeconds;
    }
}

int writeMode(WorldState& state, const KeyRecord& key, double number) {
    FanRecord& fan = state.fans[key.fan];
    const auto mode = static_cast<std::uint32_t>(number);
    const bool known = mode == kModeAutomatic || mode == kModeManual ||
                       (mode == kModeSystem && state.appleSilicon != 0);
    if (!known) {
        return kBadParameter;
    }
    if (mode == kModeManual && manualModeRule(state) == ManualModeRule::kWithoutEffect) {
        return kOk;
    }
    if (mode == kModeManual && fan.mode == kModeSystem && locks(state)) {
        return kBadCommand;
    }
    fan.mode = mode;
    fan.modeChangeTime = 0;
    expectRetake(state);
    return kOk;
}

int writeUnlock(WorldState& state, double number) {
    const bool held = number != 0;
    const bool wasHeld = state.unlock != 0;
    state.unlock = static_cast<std::uint32_t>(number);
    if (held == wasHeld || !locks(state)) {
        return kOk;
    }
    for (std::uint32_t i = 0; i < state.fanCount; ++i) {
        FanRecord& fan = state.fans[i];
        fan.modeChangeTime =
            held && fan.mode == kModeSystem ? state.machineSeconds + kReleaseSeconds : 0;
        fan.modeChangeTo = kModeAutomatic;
    }
    state.unlockLostTime = held ? 0 : state.machineSeconds + kRetakeSeconds;
    return kOk;
}

int writeTarget(WorldState& state, const KeyRecord& key, double number) {
    FanRecord& fan = state.fans[key.fan];
    fan.target = state.raisesLowTargets != 0 ? std::max(number, fan.minimum) : number;
    return kOk;
}

void runRival(World& world, std::size_t index) {
    WorldState& state = world.state();
    FanRecord& fan = state.fans[index];
    fan.rivalNextTime = state.machineSeconds + fan.rivalPeriod;
    fan.mode = kModeManual;
    if (state.controller == ControllerKind::kForcedMask) {
        state.forcedMask |= 1U << index;
    }
    fan.target = fan.rivalTarget;
    char text[48];
    std::snprintf(text, sizeof text, "write F%zuTg=%.10g -> 00", index, fan.target);
    world.note(kOtherProgram, text);
    recordHolder(state, kHeldByOther);
}

void retake(World& world) {
    WorldState& state = world.state();
    state.unlockLostTime = 0;
    for (std::uint32_t i = 0; i < state.fanCount; ++i) {
        if (state.fans[i].mode != kModeSystem) {
            state.fans[i].mode = kModeSystem;
            noteSystem(world, i, kModeSystem);
        }
    }
    recordHolder(state, 0);
}

// The automatic control asks for full speed here, and for the minimum up to kQuietUntil.
constexpr double kFullSpeedAt = 95;         // °C
constexpr double kFullSpeedAboveRest = 10;  // K, for machines that are hot already at rest
constexpr double kQuietUntil = 60;
constexpr double kQuietAboveRest = 8;
constexpr double kStartAbove = 55;   // °C: where resting fans start again
constexpr double kRestingBand = 10;  // K below that they rest
constexpr double kRestMargin = 5;    // K more than in the dump, where they still rest

// A target moves only by at least this much; one that is closer to the minimum is the minimum.
constexpr double kDeadBandRpm = 10;

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

double automaticTarget(const WorldState& state, FanRecord& fan) {
    const double heat = state.heat.controlTemperature;
    const bool mayRest = fan.restTarget < fan.minimum && fan.mode == state.automaticMode;
    if (!mayRest || heat > fan.startAbove) {
        fan.resting = 0;
    } else if (heat < fan.startAbove - kRestingBand) {
        fan.resting = 1;
    }
    return fan.resting != 0
               ? fan.restTarget
               : fan.minimum + automaticFraction(state, fan) * (fan.maximum - fan.minimum);
}

// Writes the target that the present heat asks for.
void control(const WorldState& state, FanRecord& fan) {
    const double target = automaticTarget(state, fan);
    const bool atLimit = target <= fan.minimum || target >= fan.maximum;
    const bool outside = fan.target < fan.minimum || fan.target > fan.maximum;
    if (std::abs(target - fan.target) >= kDeadBandRpm || atLimit || outside) {
        fan.target = target;
    }
}

// The speed at which the motor settles with the present target.
double steadyRpm(const WorldState& state, const FanRecord& fan) {
    const double slip = state.appleSilicon != 0
                            ? kSlipAboveMinimum * std::max(fan.target - fan.minimum, 0.0)
                            : kIntelSlip * fan.target;
    return std::min(fan.target - slip, fan.reachable);
}

// Lets the motor turn for dt seconds; dt is short.
void turn(const WorldState& state, FanRecord& fan, double dt) {
    const double goal = steadyRpm(state, fan);
    const double wanted = (goal - fan.rpm) * (1 - std::exp(-dt / kMotorSeconds));
    const double faster = std::max(kStartRpmPerSecond - kSlowdownPerRpm * fan.rpm, 100.0) * dt;
    fan.rpm += std::clamp(wanted, -kBrakeRpmPerSecond * dt, faster);
    if (std::abs(goal - fan.rpm) < kSettledRpm) {
        fan.rpm = goal;
    }
}

bool isDue(double time, double now) {
    return time > 0 && time <= now;
}

}  // namespace

int write(World& world, KeyRecord& key, const std::uint8_t* bytes) {
    WorldState& state = world.state();
    const double number = KeyTable::decode(key, bytes).value_or(0);
    switch (key.role) {
        case KeyRole::kFanMode:
            return writeMode(state, key, number);
        case KeyRole::kFanTarget:
            return writeTarget(state, key, number);
        case KeyRole::kUnlock:
            return writeUnlock(state, number);
        default:
            KeyTable::store(world, key, bytes);
            return kOk;
    }
}

void step(World& world, double dt) {
    WorldState& state = world.state();
    for (std::uint32_t i = 0; i < state.fanCount; ++i) {
        FanRecord& fan = state.fans[i];
        if (fan.mode != kModeManual) {
            control(state, fan);
        }
        turn(state, fan, dt);
    }
}

double nextEvent(const WorldState& state) {
    double next = std::numeric_limits<double>::infinity();
    const auto consider = [&next](double time) { next = time > 0 ? std::min(next, time) : next; };
    consider(state.unlockLostTime);
    for (std::uint32_t i = 0; i < state.fanCount; ++i) {
        consider(state.fans[i].modeChangeTime);
        consider(state.fans[i].rivalNextTime);
    }
    return next;
}

void runEvents(World& world) {
    WorldState& state = world.state();
    for (std::uint32_t i = 0; i < state.fanCount; ++i) {
        FanRecord& fan = state.fans[i];
        if (isDue(fan.modeChangeTime, state.machineSeconds)) {
            fan.modeChangeTime = 0;
            fan.mode = fan.modeChangeTo;
            noteSystem(world, i, fan.mode);
            recordHolder(state, 0);
        }
        if (isDue(fan.rivalNextTime, state.machineSeconds)) {
            runRival(world, i);
        }
    }
    if (isDue(state.unlockLostTime, state.machineSeconds)) {
        retake(world);
    }
}

void wake(World& world) {
    WorldState& state = world.state();
    state.unlock = 0;
    state.unlockLostTime = 0;
    state.forcedMask = 0;
    for (std::uint32_t i = 0; i < state.fanCount; ++i) {
        FanRecord& fan = state.fans[i];
        fan.modeChangeTime = 0;
        if (fan.mode != state.automaticMode) {
            fan.mode = state.automaticMode;
            noteSystem(world, i, fan.mode);
        }
    }
    recordHolder(state, 0);
}

void recordHolder(WorldState& state, std::int32_t process) {
    for (std::uint32_t i = 0; i < state.fanCount; ++i) {
        FanRecord& fan = state.fans[i];
        if (fan.mode != kModeManual) {
            fan.holder = 0;
        } else if (fan.holder == 0) {
            fan.holder = process;
        }
    }
}

bool manual(const WorldState& state, std::size_t fan) {
    return fan < state.fanCount && state.fans[fan].mode == kModeManual;
}

bool allAutomatic(const WorldState& state) {
    if (state.unlock != 0) {
        return false;
    }
    return std::all_of(state.fans, state.fans + state.fanCount, [](const FanRecord& fan) {
        return fan.mode == kModeAutomatic || fan.mode == kModeSystem;
    });
}

void calibrate(World& world, bool fansStop) {
    WorldState& state = world.state();
    const double die = state.heat.rest[static_cast<std::size_t>(HeatNode::kDie)];
    for (std::uint32_t i = 0; i < state.fanCount; ++i) {
        FanRecord& fan = state.fans[i];
        const bool resting = fan.mode != kModeManual && fan.target < fan.minimum;
        const double target = fan.mode != kModeManual ? fan.target : fan.minimum;
        const double range = std::max(fan.maximum - fan.minimum, 1.0);
        const double fraction = std::clamp((target - fan.minimum) / range, 0.0, 1.0);
        // A target within the dead band of the minimum is the minimum.
        fan.restFraction = fraction * range < kDeadBandRpm ? 0 : fraction;
        fan.restTarget = resting ? fan.target : fansStop ? 0 : fan.minimum;
        fan.startAbove =
            resting ? std::max(kStartAbove, die + kRestMargin + kRestingBand) : kStartAbove;
        fan.resting = resting ? 1 : 0;
    }
}

}  // namespace simulator::Fans
