// The text forms of dates, numbers, identifiers, base64 and UTF-8.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <random>
#include <regex>
#include <set>
#include <sstream>

#include "core/model/base64.h"
#include "core/model/date.h"
#include "core/model/number_text.h"
#include "core/model/scope_error.h"
#include "core/model/shortest_number.h"
#include "core/model/utf8.h"
#include "core/model/uuid.h"
#include "fuzz/reference_utf8.h"
#include "tests/support/dice.h"

namespace ferovane {
namespace {

using testing::Dice;
using testing::kInfinity;

// A second reading of the calendar: step day by day through more than one 400-year cycle.
TEST(DateTest, AgreesWithCountingDayByDay) {
    int year = 1890, month = 1, day = 1;
    double seconds = -2524521600;
    for (int count = 0; count < 160000; ++count, seconds += 86400) {
        char expected[64];
        std::snprintf(expected, sizeof expected, "%04d-%02d-%02dT00:00:00Z", year, month, day);
        ASSERT_EQ(iso8601(Date::fromUnixSeconds(seconds)), expected);
        ASSERT_EQ(parseIso8601(expected).unixSeconds(), seconds);
        const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
        const int lengths[] = {31, leap ? 29 : 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
        if (++day > lengths[month - 1]) {
            day = 1;
            if (++month > 12) {
                month = 1;
                ++year;
            }
        }
    }
}

TEST(DateTest, WritesFarAndFractionalDates) {
    const std::pair<double, const char*> moments[] = {
        {-62135596801, "0000-12-31T23:59:59Z"}, {-62167219201, "-0001-12-31T23:59:59Z"},
        {253402300799, "9999-12-31T23:59:59Z"}, {253402300800, "+10000-01-01T00:00:00Z"},
        {1709251199, "2024-02-29T23:59:59Z"},   {1735732984, "2025-01-01T12:03:04Z"},
    };
    for (const auto& [seconds, text] : moments) {
        EXPECT_EQ(iso8601(Date::fromUnixSeconds(seconds)), text);
        EXPECT_EQ(parseIso8601(text).unixSeconds(), seconds);
    }
    EXPECT_EQ(iso8601(Date{0.999}), "2001-01-01T00:00:00Z");
    EXPECT_EQ(iso8601(Date{-0.001}), "2000-12-31T23:59:59Z");
    const std::string last = iso8601(Date{0x1p53}), first = iso8601(Date{-0x1p53});
    EXPECT_EQ(last.substr(0, 6), "+28542");
    EXPECT_EQ(last.size(), kIso8601MaxLength);
    EXPECT_EQ(parseIso8601(last), Date{0x1p53});
    EXPECT_EQ(parseIso8601(first), Date{-0x1p53});
    EXPECT_EQ(iso8601(Date{kInfinity}), last);
    EXPECT_EQ(iso8601(Date{-1e300}), first);
    EXPECT_EQ(iso8601(Date{std::nan("")}), "2001-01-01T00:00:00Z");
    EXPECT_TRUE(Date::now() > parseIso8601("2024-01-01T00:00:00Z") &&
                Date::now() < parseIso8601("2200-01-01T00:00:00Z"));
}

TEST(DateTest, RefusesEveryOtherForm) {
    std::istringstream texts(
        "2024 2024-05-01 2024-05-01T12:30:00 2024-05-01T12:30:00+00:00 2024-05-01T12:30:00.5Z "
        "2024-05-01t12:30:00z 2024-02-30T00:00:00Z 2023-02-29T00:00:00Z 2024-13-01T00:00:00Z "
        "2024-00-01T00:00:00Z 2024-01-00T00:00:00Z 2024-01-01T24:00:00Z 2024-01-01T00:60:00Z "
        "2016-12-31T23:59:60Z +2024-01-01T00:00:00Z 10000-01-01T00:00:00Z "
        "+010000-01-01T00:00:00Z -0000-01-01T00:00:00Z 24-01-01T00:00:00Z 2024-1-01T00:00:00Z "
        "2024-01-01T-1:00:00Z 2024-01-01T00:00:00ZZ +99999999999-01-01T00:00:00Z "
        "+999999999-01-01T00:00:00Z 2024-01-01T1:000:00Z 2024-01-0101:00:00Z "
        "2024-12-31T23:59:059Z T Z - +");
    for (std::string text; texts >> text;) {
        EXPECT_THROW(parseIso8601(text), ScopeError) << text;
        EXPECT_THROW(parseIso8601(" " + text), ScopeError) << text;
    }
    EXPECT_THROW(parseIso8601(""), ScopeError);
    EXPECT_THROW(parseIso8601("2024-05-01 12:30:00Z"), ScopeError);
}

// Compares without a string per value: there are many.
::testing::AssertionResult printsAlike(double value) {
    char ours[kFixed2MaxLength];
    char theirs[400];
    const std::string_view written(ours, static_cast<std::size_t>(writeFixed2(value, ours) - ours));
    std::snprintf(theirs, sizeof theirs, "%.2f", value);
    if (written == theirs) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << written << " for " << theirs << ", bits " << std::hex
                                         << std::bit_cast<std::uint64_t>(value);
}

// How many numbers to print; more than a usual run takes with, say,
//     FEROVANE_PRINTED_NUMBERS=20000000 model_tests --gtest_filter='Fixed2Test.*'
std::int64_t printedNumbers() {
    const char* const given = std::getenv("FEROVANE_PRINTED_NUMBERS");
    return given != nullptr ? std::atoll(given) : 600000;
}

TEST(Fixed2Test, PrintsAsPrintf) {
    std::mt19937_64 random(20240501);
    const std::int64_t count = printedNumbers();
    ASSERT_GE(count, 1);
    for (const double edge : {0.0, 0.005, 0.125, 0x1p-11, 0x1p-12, 0x1p52 - 0.5, 0x1p52, 0x1p53,
                              0x1p63, 0x1p64, 1e300, kInfinity, std::nan("")}) {
        ASSERT_TRUE(printsAlike(edge) && printsAlike(-edge));
    }
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

std::string shortest(double value) {
    char text[kShortestMaxLength];
    return {text, writeShortest(value, text)};
}

TEST(ShortestTest, WritesTheCommonForms) {
    std::istringstream texts(
        "0 -0.0 1 -1800 45.25 0.1 0.30000000000000004 0.3333333333333333 100 1000000000000000 "
        "9007199254740991 9007199254740992 1e16 1.5e300 0.00001 0.00009999999999999999 1.234e-6 "
        "5e-324 1.7976931348623157e308 2.2250738585072014e-308 0.0000152587890625 "
        "9.999999999999998 242.1901092529297 736200000.123457");
    for (std::string text; texts >> text;) {
        EXPECT_EQ(shortest(std::strtod(text.c_str(), nullptr)), text);
    }
    EXPECT_EQ(shortest(13.625411987304687), "13.625411987304688");  // of two equally near, the even
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
    Dice dice(3);
    const std::regex form("[+-]?[0-9]+");
    const auto check = [&](const std::string& text) {
        const bool whole = std::regex_match(text, form) && text.size() < 18;
        const long long value = whole ? std::strtoll(text.c_str(), nullptr, 10) : 0;
        const bool narrow = whole && std::in_range<std::int32_t>(value);
        const bool natural = whole && std::in_range<std::uint32_t>(value);
        ASSERT_EQ(parseInt32(text),
                  narrow ? std::optional(static_cast<std::int32_t>(value)) : std::nullopt)
            << text;
        ASSERT_EQ(parseUInt32(text),
                  natural ? std::optional(static_cast<std::uint32_t>(value)) : std::nullopt)
            << text;
    };
    for (const char* text : {"2147483647", "-2147483648", "2147483648", "-2147483649", "-0", "-00",
                             "4294967295", "4294967296", "-1", "99999999999999999999"}) {
        check(text);
    }
    for (int i = 0; i < 20000; ++i) {
        std::string text;
        for (int length = dice.upTo(6); length > 0; --length) {
            text += "0123456789+- x.\n"[dice.upTo(dice.oneIn(4) ? 15 : 9)];
        }
        check((dice.oneIn(3) ? "-" : "") + text);
    }
}

TEST(UuidTest, ReadsEitherCaseAndWritesUpperCase) {
    const auto uuid = Uuid::parse("0123abcd-EF45-6789-aBcD-ef0123456789");
    ASSERT_TRUE(uuid);
    EXPECT_EQ(uuid->text(), "0123ABCD-EF45-6789-ABCD-EF0123456789");
    EXPECT_EQ(uuid->bytes[0], 0x01);
    EXPECT_EQ(uuid->bytes[15], 0x89);
}

TEST(UuidTest, RefusesEveryOtherShape) {
    for (const char* text :
         {"", "0123abcdef456789abcdef0123456789", "{0123abcd-ef45-6789-abcd-ef0123456789}",
          "0123abcd-ef45-6789-abcd-ef012345678", "0123abcd-ef45-6789-abcd-ef01234567890",
          "0123abcg-ef45-6789-abcd-ef0123456789", "0123abcd ef45-6789-abcd-ef0123456789",
          "0123abcde-f45-6789-abcd-ef0123456789", "0123abcd-ef45-6789-abcd-ef012345678\n",
          " 123abcd-ef45-6789-abcd-ef0123456789", "-0123abcd-ef45-6789-abcdef0123456789"}) {
        EXPECT_EQ(Uuid::parse(text), std::nullopt) << text;
    }
}

TEST(UuidTest, RandomOnesAreVersionFourAndDiffer) {
    std::set<std::string> seen;
    for (int i = 0; i < 200; ++i) {
        const std::string text = Uuid::random().text();
        EXPECT_EQ(text[14], '4');
        EXPECT_NE(std::string_view("89AB").find(text[19]), std::string_view::npos);
        EXPECT_TRUE(seen.insert(text).second);
        EXPECT_EQ(Uuid::parse(text)->text(), text);
    }
}

TEST(Base64Test, ReadsWhatAnEncoderWrites) {
    using namespace std::string_literals;
    EXPECT_EQ(decodeBase64(""), "");
    EXPECT_EQ(decodeBase64("TQ=="), "M");
    EXPECT_EQ(decodeBase64("TWE="), "Ma");
    EXPECT_EQ(decodeBase64("TWFu"), "Man");
    EXPECT_EQ(decodeBase64("AAECAw=="), "\0\1\2\3"s);
    EXPECT_EQ(decodeBase64("+/+/"), "\xFB\xFF\xBF");
    EXPECT_EQ(decodeBase64("5puy57q/"), "曲线");
}

TEST(Base64Test, RefusesEverythingElse) {
    for (const char* text : {"T",      "TQ",       "TQ=",     "TQ===", "====",  "=",       "T===",
                             "TWFuTQ", "TQ==TWFu", "T=Fu",    "TW=u",  "TW Fu", " TWFu",   "TWFu\n",
                             "TWF-",   "TWF_",     "TWF\xC3", "TR==",  "TWF=",  "TWFu===="}) {
        EXPECT_EQ(decodeBase64(text), std::nullopt) << text;
    }
}

TEST(Utf8Test, FindsAndRepairsIllFormedSequences) {
    // Around every border: continuations, overlong forms, surrogates, the last code point.
    const std::string_view bytes =
        "az\x7F\x80\x8F\x90\x9F\xA0\xBF\xC0\xC1\xC2\xDF\xE0\xE1\xED\xEE\xEF"
        "\xF0\xF1\xF4\xF5\xFF";
    Dice dice(5);
    for (int i = 0; i < 60000; ++i) {
        std::string text(dice.oneIn(4) ? 9 : 0, 'x');
        for (int length = dice.upTo(6); length > 0; --length) {
            text += bytes[dice.bits() % bytes.size()];
        }
        const std::string expected = fuzzing::reference::repairedUtf8(text);
        ASSERT_EQ(repairUtf8(text), expected) << "input " << i;
        const auto invalid = firstInvalidUtf8(text);
        ASSERT_EQ(invalid.has_value(), expected != text) << "input " << i;
        if (invalid) {  // the first one is where the repaired text begins to differ
            ASSERT_EQ(expected.substr(*invalid, 3), kReplacementCharacter);
            ASSERT_EQ(text.substr(0, *invalid), expected.substr(0, *invalid));
        }
    }
}

TEST(Utf8Test, CutsBetweenCharacters) {
    EXPECT_EQ(utf8Prefix("风扇", 6), "风扇");
    EXPECT_EQ(utf8Prefix("风扇", 5), "风");
    EXPECT_EQ(utf8Prefix("风扇", 3), "风");
    EXPECT_EQ(utf8Prefix("风扇", 2), "");
    EXPECT_EQ(utf8Prefix("ab", 0), "");
    EXPECT_EQ(utf8Prefix("a\U0001F600", 4), "a");
}

}  // namespace
}  // namespace ferovane
