#include "core/model/shortest_number.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace ferovane {
namespace {

__extension__ using Wide = unsigned __int128;

// Significant digits and the power of ten of the first: 45.25 is {4525, 4 digits, 1}.
struct Decimal {
    std::uint64_t digits;
    int count;
    int exponent;
};

constexpr int kMaxDigits = 17;  // these always read back

// Between these bounds a number scaled to 17 digits is exact in 128 bits: its significand and the
// two bits of its bounds take 55, and the largest factor, 10^21, another 70.
constexpr double kExactFrom = 1e-5;
constexpr double kExactBelow = 9007199254740992.0;  // 2^53: below, no factor of two is left over
constexpr int kLeastExponent = -5;
constexpr int kLeastScientific = 16;  // the decimal exponent from which one is written

constexpr auto kPowersOfTen = [] {
    std::array<std::uint64_t, 20> powers{1};  // all that fit
    for (std::size_t i = 1; i < powers.size(); ++i) {
        powers[i] = powers[i - 1] * 10;
    }
    return powers;
}();

constexpr std::uint64_t powerOfTen(int exponent) {
    return kPowersOfTen[static_cast<std::size_t>(exponent)];
}

// The decimal exponent of a magnitude between the bounds.
int decimalExponent(double magnitude) {
    static constexpr std::array<double, 21> powers{1e-4, 1e-3, 1e-2, 1e-1, 1e0,  1e1,  1e2,
                                                   1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,
                                                   1e10, 1e11, 1e12, 1e13, 1e14, 1e15, 1e16};
    const auto above = std::upper_bound(powers.begin(), powers.end(), magnitude);
    return static_cast<int>(above - powers.begin()) + kLeastExponent;
}

// What reads back to a number: everything from `lowest` to `highest`, in units of 2^-shift of the
// 17th digit. The ends themselves only for an even significand, since a tie goes to the even one.
struct Interval {
    Wide lowest, exact, highest;
    int shift;

    // The multiple of `step` that reads back to the number and is nearest to it, of two the even
    // one; 0 if none does.
    std::uint64_t nearestMultiple(std::uint64_t step) const {
        const auto whole = static_cast<std::uint64_t>(exact >> shift);
        const std::uint64_t below = whole - whole % step;
        const std::uint64_t above = below + step;
        const Wide wideBelow = Wide{below} << shift;
        const Wide wideAbove = Wide{above} << shift;
        const bool belowFits = wideBelow >= lowest;
        const bool aboveFits = wideAbove <= highest;
        if (belowFits && aboveFits) {
            const Wide down = exact - wideBelow;
            const Wide up = wideAbove - exact;
            const bool evenBelow = below / step % 2 == 0;
            return down < up || (down == up && evenBelow) ? below : above;
        }
        return belowFits ? below : (aboveFits ? above : 0);
    }
};

Interval readBackInterval(double magnitude, int decimalPlaces) {
    const auto bits = std::bit_cast<std::uint64_t>(magnitude);
    const std::uint64_t fraction = bits & ((std::uint64_t{1} << 52) - 1);
    const std::uint64_t significand = fraction | std::uint64_t{1} << 52;
    const Wide scale = decimalPlaces > 19 ? Wide{powerOfTen(19)} * powerOfTen(decimalPlaces - 19)
                                          : Wide{powerOfTen(decimalPlaces)};
    // A power of two has a neighbour below at half the distance of the one above.
    const unsigned belowHalf = fraction == 0 ? 1 : 2;
    const unsigned open = significand & 1;
    return {(Wide{4 * significand} - belowHalf) * scale + open, Wide{4 * significand} * scale,
            (Wide{4 * significand} + 2) * scale - open, 1075 - static_cast<int>(bits >> 52) + 2};
}

Decimal trimmed(std::uint64_t digits, int exponent, int count) {
    while (count > 1 && digits % 10 == 0) {
        digits /= 10;
        --count;
    }
    return {digits, count, exponent};
}

Decimal shortestExact(double magnitude) {
    const int exponent = decimalExponent(magnitude);
    const Interval interval = readBackInterval(magnitude, kMaxDigits - 1 - exponent);
    // If no number of so few digits fits then none of fewer does.
    std::uint64_t best = interval.nearestMultiple(1);
    int dropped = 0;
    for (int tooMany = kMaxDigits; tooMany - dropped > 1;) {
        const int tried = (dropped + tooMany) / 2;
        if (const std::uint64_t shorter = interval.nearestMultiple(powerOfTen(tried));
            shorter != 0) {
            best = shorter;
            dropped = tried;
        } else {
            tooMany = tried;
        }
    }
    const bool carried = best >= powerOfTen(kMaxDigits);  // 9.99… became 10
    return trimmed(best, exponent + (carried ? 1 : 0), kMaxDigits + (carried ? 1 : 0));
}

// For very large and very small numbers, which no measurement gives. The point that printf writes
// is the locale's, and may have several bytes; only the digits and the exponent are taken.
Decimal shortestPrinted(double magnitude) {
    std::array<char, 48> text{};
    for (int precision = 0; precision < kMaxDigits; ++precision) {
        std::snprintf(text.data(), text.size(), "%.*e", precision, magnitude);
        if (std::strtod(text.data(), nullptr) == magnitude) {
            break;
        }
    }
    std::uint64_t digits = 0;
    int count = 0;
    const char* at = text.data();
    for (; *at != 'e'; ++at) {
        if (*at >= '0' && *at <= '9') {
            digits = 10 * digits + static_cast<std::uint64_t>(*at - '0');
            ++count;
        }
    }
    return trimmed(digits, std::atoi(at + 1), count);
}

char* writeDigits(const Decimal& decimal, int pointAfter, char* out) {
    std::array<char, 20> text;
    const char* const end = std::to_chars(text.data(), text.data() + 20, decimal.digits).ptr;
    for (const char* digit = text.data(); digit < end; ++digit, --pointAfter) {
        if (pointAfter == 0) {
            *out++ = '.';
        }
        *out++ = *digit;
    }
    return pointAfter > 0 ? std::fill_n(out, pointAfter, '0') : out;
}

char* writeDecimal(const Decimal& decimal, char* out) {
    if (decimal.exponent >= kLeastScientific || decimal.exponent < kLeastExponent) {
        out = writeDigits(decimal, 1, out);
        *out++ = 'e';
        return std::to_chars(out, out + 5, decimal.exponent).ptr;
    }
    if (decimal.exponent < 0) {
        *out++ = '0';
        *out++ = '.';
        out = std::fill_n(out, -decimal.exponent - 1, '0');
        return writeDigits(decimal, decimal.count, out);
    }
    return writeDigits(decimal, decimal.exponent + 1, out);
}

}  // namespace

char* writeShortest(double value, char* out) {
    const double magnitude = std::fabs(value);
    if (magnitude == 0) {
        constexpr std::string_view negativeZero = "-0.0";
        return std::signbit(value) ? std::copy(negativeZero.begin(), negativeZero.end(), out)
                                   : std::fill_n(out, 1, '0');
    }
    if (std::signbit(value)) {
        *out++ = '-';
    }
    const bool exact = magnitude >= kExactFrom && magnitude < kExactBelow;
    return writeDecimal(exact ? shortestExact(magnitude) : shortestPrinted(magnitude), out);
}

}  // namespace ferovane
