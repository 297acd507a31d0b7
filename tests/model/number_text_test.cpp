#include "core/model/number_text.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <random>

#include "core/model/shortest_number.h"

namespace ferovane {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

std::string printed(double value) {
    char text[400];
    std::snprintf(text, sizeof text, "%.2f", value);
    return text;
}

std::string shortest(double value) {
    char text[kShortestMaxLength];
    return {text, writeShortest(value, text)};
}

// Compares without a string per value: there are many.
testing::AssertionResult printsAlike(double value) {
    char ours[kFixed2MaxLength];
    char theirs[400];
    const std::string_view written(ours, static_cast<std::size_t>(writeFixed2(value, ours) - ours));
    std::snprintf(theirs, sizeof theirs, "%.2f", value);
    if (written == theirs) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << written << " for " << theirs << ", bits " << std::hex
                                       << std::bit_cast<std::uint64_t>(value);
}

TEST(Fixed2Test, PrintsTheEdgesAsPrintf) {
    for (const double magnitude : {0.0,
                                   0.001,
                                   0.004999999999999999,
                                   0.005,
                                   0.0050000000000000001,
                                   0.015,
                                   0.125,
                                   0.375,
                                   0.994999999999999996,
                                   0.995,
                                   1.005,
                                   2.675,
                                   99.995,
                                   1234567.895,
                                   4294967295.995,
                                   0x1p52 - 0.5,
                                   0x1p52,
                                   0x1p52 + 1,
                                   0x1p53,
                                   0x1p63 - 1024,
                                   0x1p63,
                                   0x1p64,
                                   1e22,
                                   1e300,
                                   std::numeric_limits<double>::max(),
                                   std::numeric_limits<double>::min(),
                                   std::numeric_limits<double>::denorm_min(),
                                   0x1p-11,
                                   0x1p-12,
                                   kInfinity,
                                   std::numeric_limits<double>::quiet_NaN()}) {
        EXPECT_TRUE(printsAlike(magnitude));
        EXPECT_TRUE(printsAlike(-magnitude));
    }
    EXPECT_EQ(fixed2(-0.001), "-0.00");
    EXPECT_EQ(fixed2(0.125), "0.12");
    EXPECT_EQ(fixed2(1834.5), "1834.50");
    EXPECT_LE(printed(-std::numeric_limits<double>::max()).size(), kFixed2MaxLength);
}

// How many numbers to print; more than a usual run takes with, say,
//     FEROVANE_PRINTED_NUMBERS=20000000 model_tests --gtest_filter='Fixed2Test.*'
std::int64_t printedNumbers() {
    const char* const given = std::getenv("FEROVANE_PRINTED_NUMBERS");
    return given != nullptr ? std::atoll(given) : 600000;
}

TEST(Fixed2Test, PrintsManyNumbersAsPrintf) {
    std::mt19937_64 random(20240501);
    const std::int64_t count = printedNumbers();
    ASSERT_GE(count, 1);
    for (std::int64_t i = 0; i < (count + 3) / 4; ++i) {
        const double sign = (i & 1) == 0 ? 1 : -1;
        ASSERT_TRUE(printsAlike(std::bit_cast<double>(random())));
        // Eighths of hundredths hold every exact tie, and the neighbours of ties.
        const double tie = sign * static_cast<double>(random() % 80000000) / 800;
        ASSERT_TRUE(printsAlike(tie));
        ASSERT_TRUE(printsAlike(std::nextafter(tie, (i & 2) == 0 ? kInfinity : -kInfinity)));
        ASSERT_TRUE(printsAlike(sign * static_cast<double>(random() % 10000000) / 1000));
    }
}

TEST(ShortestTest, WritesTheCommonForms) {
    const struct {
        double value;
        const char* text;
    } cases[] = {
        {0, "0"},
        {-0.0, "-0.0"},
        {1, "1"},
        {-1800, "-1800"},
        {45.25, "45.25"},
        {0.1, "0.1"},
        {0.3, "0.3"},
        {0.1 + 0.2, "0.30000000000000004"},
        {1.0 / 3, "0.3333333333333333"},
        {100, "100"},
        {1e15, "1000000000000000"},
        {9007199254740991, "9007199254740991"},
        {9007199254740993.0, "9007199254740992"},
        {1e16, "1e16"},
        {1.5e300, "1.5e300"},
        {0.00001, "0.00001"},
        {0.00009999999999999999, "0.00009999999999999999"},
        {0.000001234, "1.234e-6"},
        {5e-324, "5e-324"},
        {std::numeric_limits<double>::max(), "1.7976931348623157e308"},
        {std::numeric_limits<double>::min(), "2.2250738585072014e-308"},
        {0.5, "0.5"},
        {0x1p-16, "0.0000152587890625"},
        {9.999999999999998, "9.999999999999998"},
        {9.9999999999999999, "10"},
        {726.5703125f / 3.0f, "242.1901092529297"},
        {13.625411987304687, "13.625411987304688"},  // of two equally near, the even one
        {736200000.123457, "736200000.123457"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(shortest(c.value), c.text);
    }
}

TEST(ShortestTest, ReadsBackAndNeedsEveryDigit) {
    std::mt19937_64 random(7);
    for (int i = 0; i < 60000; ++i) {
        const double fraction = static_cast<double>(random() >> 11) * 0x1p-53;
        const double value = i % 3 == 0 ? std::bit_cast<double>(random())
                             : i % 3 == 1
                                 ? static_cast<double>(static_cast<float>(fraction * 120))
                                 : std::ldexp(fraction, static_cast<int>(random() % 72) - 18);
        if (!std::isfinite(value)) {
            continue;
        }
        const std::string text = shortest(value);
        ASSERT_LE(text.size(), kShortestMaxLength);
        ASSERT_EQ(std::strtod(text.c_str(), nullptr), value) << text;
        int digits = 0;
        for (const char c : text.substr(0, text.find('e'))) {
            digits += (c >= '1' && c <= '9') || (c == '0' && digits > 0) ? 1 : 0;
        }
        char fewer[40];
        std::snprintf(fewer, sizeof fewer, "%.*e", std::max(0, std::min(digits, 17) - 2), value);
        if (digits > 1 && text.back() != '0') {
            ASSERT_NE(std::strtod(fewer, nullptr), value) << text << " is longer than " << fewer;
        }
    }
}

TEST(ParseNumberTest, TakesASignAndDigitsOnly) {
    EXPECT_EQ(parseInt32("0"), 0);
    EXPECT_EQ(parseInt32("+7"), 7);
    EXPECT_EQ(parseInt32("-7"), -7);
    EXPECT_EQ(parseInt32("-0"), 0);
    EXPECT_EQ(parseInt32("007"), 7);
    EXPECT_EQ(parseInt32("2147483647"), 2147483647);
    EXPECT_EQ(parseInt32("-2147483648"), std::numeric_limits<std::int32_t>::min());
    EXPECT_EQ(parseInt32("2147483648"), std::nullopt);
    EXPECT_EQ(parseInt32("-2147483649"), std::nullopt);
    EXPECT_EQ(parseUInt32("4294967295"), 4294967295U);
    EXPECT_EQ(parseUInt32("+501"), 501U);
    EXPECT_EQ(parseUInt32("-0"), 0U);
    EXPECT_EQ(parseUInt32("-00"), 0U);
    EXPECT_EQ(parseUInt32("-1"), std::nullopt);
    EXPECT_EQ(parseUInt32("4294967296"), std::nullopt);
    using namespace std::string_literals;
    for (const std::string& text :
         {""s, "+"s, "-"s, "+-5"s, "--5"s, "++5"s, " 5"s, "5 "s, "5x"s, "0x5"s, "5.0"s, "1e3"s,
          "5\n"s, "5\0"s, "\uFF15"s, "99999999999999999999"s, "-99999999999999999999"s}) {
        EXPECT_EQ(parseInt32(text), std::nullopt) << text;
        EXPECT_EQ(parseUInt32(text), std::nullopt) << text;
    }
}

}  // namespace
}  // namespace ferovane
