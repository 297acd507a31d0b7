// The settings that the power tool shows and changes, per power source.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "simulator/machine/world.h"

namespace simulator::PowerSettings {

inline constexpr std::string_view kMains = "AC Power";
inline constexpr std::string_view kBattery = "Battery Power";

PowerSettingRecord* find(World& world, std::string_view source, std::string_view name);
// Adds or changes; throws std::runtime_error when there is no room or a text is too long.
void set(World& world, std::string_view source, std::string_view name, std::string_view value);
void remove(World& world, std::string_view source, std::string_view name);
// Sets what the power tool's print says ("AC Power:" and lines " sleep  10").
void read(World& world, std::string_view print);
std::vector<const PowerSettingRecord*> all(World& world);

}  // namespace simulator::PowerSettings
