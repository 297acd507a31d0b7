// Numbers as other programs read them.
#pragma once

#include <cstddef>

namespace ferovane {

// The longest that writeShortest writes: a sign, 17 digits, a point, "e-308".
inline constexpr std::size_t kShortestMaxLength = 32;

// Writes a finite number with as few significant digits as read back to it, of those the nearest,
// whatever the process locale. Whole numbers have no fraction ("1800"), zero may have a sign
// ("-0.0"), and below 1e-5 and from 1e16 on there is an exponent. The buffer holds at least
// kShortestMaxLength bytes and is not terminated; returns the end of what was written.
char* writeShortest(double value, char* out);

}  // namespace ferovane
