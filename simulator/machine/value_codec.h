// Typed controller values and numbers, for every numeric type that real machines were seen to have.
#pragma once

#include <cstdint>
#include <optional>

namespace simulator {

// Apple Silicon controllers keep integers little-endian; Intel ones keep them big-endian.
// Fixed-point types are big-endian and "flt " and "ioft" little-endian on both.
enum class IntegerOrder : std::uint8_t { kBigEndian, kLittleEndian };

// type: four packed characters; a NUL as the fourth counts as a blank. Absent for text, structures,
// and sizes that the type does not have.
std::optional<double> decodedNumber(std::uint32_t type, std::uint32_t size,
                                    const std::uint8_t* bytes, IntegerOrder order);

// Writes the nearest value that the type can hold into size bytes. False, and nothing is written,
// for types that decodedNumber does not know.
bool encodeNumber(std::uint32_t type, std::uint32_t size, double number, IntegerOrder order,
                  std::uint8_t* bytes);

}  // namespace simulator
