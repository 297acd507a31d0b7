// The settings that the power tool shows and changes, per power source.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "simulator/machine/world.h"

namespace simulator::PowerSettings {

inline constexpr std::string_view kMains = "AC Power";
inline constexpr std::string_view kBattery = "Battery Power";
inline constexpr std::string_view kUps = "UPS Power";

PowerSettingRecord* find(World& world, std::string_view source, std::string_view name);
bool hasSource(World& world, std::string_view source);
// Adds or changes; throws std::runtime_error when there is no room or a text is too long.
void set(World& world, std::string_view source, std::string_view name, std::string_view value);
void remove(World& world, std::string_view source, std::string_view name);
std::vector<const PowerSettingRecord*> all(World& world);

}  // namespace simulator::PowerSettings
