// The keys of a controller: lookup, values, and which of them are more than stored bytes.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "simulator/machine/world.h"

namespace simulator {

struct KeyDefinition {
    std::uint32_t code = 0;
    std::uint32_t type = 0;
    std::uint32_t size = 0;
    std::uint8_t attributes = 0;
    std::uint8_t readResult = 0;
    std::vector<std::uint8_t> bytes;
};

inline constexpr std::uint8_t kAttributeRead = 0x80;
inline constexpr std::uint8_t kAttributeWrite = 0x40;

// The bytes that a structure read returns of a value.
using ValueBytes = std::array<std::uint8_t, kReturnedBytes>;

namespace KeyTable {

// Null when there is no such key. A fan that has vanished has none of its keys.
KeyRecord* find(World& world, std::uint32_t code);

// Adds at the end of the controller's order, or replaces in place. A key of a meaning that the
// machine knows ("F0Ac", "#KEY", "FS! " …) is connected to it.
KeyRecord& put(World& world, const KeyDefinition& definition);
void remove(World& world, std::uint32_t code);
// Sorts the lookup table anew.
void reindex(World& world);

// The value now. Absent where the type is not numeric.
std::optional<double> number(World& world, const KeyRecord& key);
ValueBytes value(World& world, const KeyRecord& key);

// Stores bytes as the controller does: connected keys change what they stand for.
void store(World& world, KeyRecord& key, const std::uint8_t* bytes);
// The number in the key's type; false when the type has no numbers.
bool encode(const KeyRecord& key, double number, ValueBytes& bytes);
std::optional<double> decode(const KeyRecord& key, const std::uint8_t* bytes);

}  // namespace KeyTable

// "F0Ac": the fan index when the code is that of a fan key, absent otherwise.
std::optional<std::size_t> fanOfKey(std::uint32_t code);

}  // namespace simulator
