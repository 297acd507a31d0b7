// Numbers as user text and as arguments, the same whatever the process locale.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ferovane {

// The longest that writeFixed2 writes: a sign, 309 digits, the point and two digits.
inline constexpr std::size_t kFixed2MaxLength = 313;

// Exactly what "%.2f" prints in the C locale: rounded from the exact binary value, ties to the even
// digit, "-0.00" for what rounds to zero from below, infinities and NaN in the platform's words.
std::string fixed2(double value);

// The same into a buffer of at least kFixed2MaxLength bytes, without allocating or terminating;
// returns the end of what was written.
char* writeFixed2(double value, char* out);

// A decimal integer: an optional "+" or "-", then digits only. Absent for anything else and for
// what does not fit; "-0" is zero in both.
std::optional<std::int32_t> parseInt32(std::string_view text);
std::optional<std::uint32_t> parseUInt32(std::string_view text);

}  // namespace ferovane
