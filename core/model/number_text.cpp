#include "core/model/number_text.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <system_error>
#include <utility>

namespace ferovane {
namespace {

// A double is its 53-bit significand times 2 to the power of this field less the bias.
constexpr int kSignificandBits = 52;
constexpr std::uint64_t kSignificandMask = (std::uint64_t{1} << kSignificandBits) - 1;
constexpr int kExponentMask = 0x7FF;
constexpr int kExponentBias = 1075;

// From here on a double is a whole number, and below the limit it also fits 64 bits.
constexpr double kWholeFrom = 4503599627370496.0;     // 2^52
constexpr double kFitsBelow = 9223372036854775808.0;  // 2^63

// A magnitude below kWholeFrom in hundredths. Multiplying the significand keeps every bit, so the
// remainder that decides the rounding is exact, as it is for printf.
std::uint64_t hundredths(double magnitude) {
    const auto bits = std::bit_cast<std::uint64_t>(magnitude);
    const int exponent = static_cast<int>(bits >> kSignificandBits) & kExponentMask;
    const std::uint64_t hidden = exponent == 0 ? 0 : kSignificandMask + 1;
    const std::uint64_t scaled = ((bits & kSignificandMask) | hidden) * 100;
    const int shift = kExponentBias - exponent;
    if (shift > 63) {
        return 0;  // `scaled` has at most 60 bits: far below half a hundredth
    }
    const std::uint64_t whole = scaled >> shift;
    const std::uint64_t remainder = scaled & ((std::uint64_t{1} << shift) - 1);
    const std::uint64_t half = std::uint64_t{1} << (shift - 1);
    const bool up = remainder > half || (remainder == half && (whole & 1) != 0);
    return whole + (up ? 1 : 0);
}

char* writeHundredths(std::uint64_t value, char* out) {
    out = std::to_chars(out, out + 20, value / 100).ptr;
    const auto cents = static_cast<unsigned>(value % 100);
    *out++ = '.';
    *out++ = static_cast<char>('0' + cents / 10);
    *out++ = static_cast<char>('0' + cents % 10);
    return out;
}

// Without decimals there is no decimal point for the locale to choose.
char* writeWithPrintf(double value, char* out) {
    std::array<char, kFixed2MaxLength> text;
    const int length = std::snprintf(text.data(), text.size(), "%.0f", value);
    out = std::copy_n(text.data(), length, out);
    if (std::isfinite(value)) {
        out = std::copy_n(".00", 3, out);
    }
    return out;
}

// A text's sign taken off it; true for "-".
bool takeSign(std::string_view& text) {
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) {
        text.remove_prefix(1);
    }
    return negative;
}

std::optional<std::uint32_t> parseDigits(std::string_view text) {
    std::uint32_t value = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end) {
        return std::nullopt;
    }
    return value;
}

}  // namespace

char* writeFixed2(double value, char* out) {
    const double magnitude = std::fabs(value);
    if (!(magnitude < kFitsBelow)) {
        return writeWithPrintf(value, out);
    }
    if (std::signbit(value)) {
        *out++ = '-';
    }
    if (magnitude < kWholeFrom) {
        return writeHundredths(hundredths(magnitude), out);
    }
    out = std::to_chars(out, out + 20, static_cast<std::uint64_t>(magnitude)).ptr;
    return std::copy_n(".00", 3, out);
}

std::string fixed2(double value) {
    std::array<char, kFixed2MaxLength> text;
    return {text.data(), writeFixed2(value, text.data())};
}

std::optional<std::uint32_t> parseUInt32(std::string_view text) {
    const bool negative = takeSign(text);
    const auto value = parseDigits(text);
    return negative && value.value_or(0) != 0 ? std::nullopt : value;
}

std::optional<std::int32_t> parseInt32(std::string_view text) {
    const bool negative = takeSign(text);
    const auto magnitude = parseDigits(text);
    if (!magnitude) {
        return std::nullopt;
    }
    const std::int64_t value = negative ? -std::int64_t{*magnitude} : std::int64_t{*magnitude};
    if (!std::in_range<std::int32_t>(value)) {
        return std::nullopt;
    }
    return static_cast<std::int32_t>(value);
}

}  // namespace ferovane
