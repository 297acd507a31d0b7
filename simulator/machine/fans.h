// Fans: their motors, the controller's automatic control, and who may take them.
#pragma once

#include <cstdint>

#include "simulator/machine/key_table.h"
#include "simulator/machine/world.h"

namespace simulator {

inline constexpr std::uint32_t kModeAutomatic = 0;
inline constexpr std::uint32_t kModeManual = 1;
inline constexpr std::uint32_t kModeSystem = 3;  // Apple Silicon's

namespace Fans {

// A write to a fan's mode or target, to the forced mask or the unlock key, with the controller's
// own rules. Returns the result byte; bytes are stored only when it is 0.
int write(World& world, KeyRecord& key, const std::uint8_t* bytes);

// Lets dt seconds of the automatic control and of the motors pass; dt is short.
void step(World& world, double dt);

// What is due by the machine's own clock: the lock of Apple Silicon, other programs' rounds.
double nextEvent(const WorldState& state);  // infinity when there is none
void runEvents(World& world);

// The machine wakes from sleep: manual modes and the unlock are gone.
void wake(World& world);

// After a write by a process (its id, or kHeldByOther): who holds the fans that are manual now.
void recordHolder(WorldState& state, std::int32_t process);

bool manual(const WorldState& state, std::size_t fan);
bool allAutomatic(const WorldState& state);

// Makes the present targets those of rest, which the automatic control returns to: a fan that is
// below its minimum rests there until the die is hotter than now. fansStop: the others rest, too,
// while the machine is cool.
void calibrate(World& world, bool fansStop);

}  // namespace Fans
}  // namespace simulator
