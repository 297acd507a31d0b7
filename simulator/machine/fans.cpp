#include "simulator/machine/fans.h"

#include <algorithm>
#include <cstdio>
#include <limits>

#include "simulator/machine/automatic_fan.h"

namespace simulator::Fans {
namespace {

constexpr std::uint32_t kModeAutomatic = 0;
constexpr std::uint32_t kModeManual = 1;
constexpr std::uint32_t kModeSystem = 3;

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

bool locks(const WorldState& state) {
    return state.manualModeRule == ManualModeRule::kRefusedUntilUnlocked;
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
    if (mode == kModeManual && state.manualModeRule == ManualModeRule::kWithoutEffect) {
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
            AutomaticFan::control(state, fan);
        }
        AutomaticFan::turn(state, fan, dt);
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

void calibrate(World& world) {
    WorldState& state = world.state();
    for (std::uint32_t i = 0; i < state.fanCount; ++i) {
        FanRecord& fan = state.fans[i];
        const double range = std::max(fan.maximum - fan.minimum, 1.0);
        const double fraction = std::clamp((fan.target - fan.minimum) / range, 0.0, 1.0);
        // A target within the dead band of the minimum is the minimum.
        fan.restFraction = fraction * range < AutomaticFan::kDeadBandRpm ? 0 : fraction;
        fan.resting = state.fansMayRest != 0 && fan.target == 0 ? 1 : 0;
    }
}

}  // namespace simulator::Fans
