// The text forms of dates, numbers, identifiers, base64 and UTF-8.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
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
#include "tests/support/dice.h"

namespace ferovane {
namespace {

using testing::Dice;
using testing::kInfinity;

std::string printed(const char* format, auto... values) {
    char text[400];
    std::snprintf(text, sizeof text, format, values...);
    return text;
}

// The standard library's calendar, wherever it reaches, and most often around a leap day.
TEST(DateTest, FollowsTheCalendar) {
    namespace chrono = std::chrono;
    Dice dice(1);
    for (int i = 0; i < 40000; ++i) {
        const int year = (dice.upTo(600) - 300) * (dice.oneIn(2) ? 100 : 1) + 2000;
        chrono::sys_days days = chrono::year(year) / 2 / 27;
        days += chrono::days(dice.oneIn(2) ? dice.upTo(3) : dice.upTo(400));
        const chrono::year_month_day date(days);
        const int second = dice.oneIn(9) ? 86399 : dice.upTo(86399), y = int(date.year());
        const std::string expected =
            printed("%s%04d-%02u-%02uT%02d:%02d:%02dZ",
                    y < 0      ? "-"
                    : y > 9999 ? "+"
                               : "",
                    std::abs(y), unsigned(date.month()), unsigned(date.day()), second / 3600,
                    second / 60 % 60, second % 60);
        const double seconds = 86400.0 * double(days.time_since_epoch().count()) + second;
        ASSERT_EQ(iso8601(Date::fromUnixSeconds(seconds + dice.upTo(7) / 8.0)), expected);
        ASSERT_EQ(parseIso8601(expected).unixSeconds(), seconds) << expected;
    }
    EXPECT_LT(std::fabs(Date::now().unixSeconds() - double(std::time(nullptr))), 60);
}

TEST(DateTest, WritesTheLastThatCanBeCounted) {
    for (const auto& [seconds, text] : {std::pair(0x1p53, "+285428782-11-12T07:36:32Z"),
                                        {kInfinity, "+285428782-11-12T07:36:32Z"},
                                        {-0x1p53, "-285424781-02-20T16:23:28Z"},
                                        {-1e300, "-285424781-02-20T16:23:28Z"},
                                        {testing::kNaN, "2001-01-01T00:00:00Z"}}) {
        EXPECT_EQ(iso8601(Date{seconds}), text);
        EXPECT_LE(std::strlen(text), kIso8601MaxLength);
        EXPECT_EQ(iso8601(parseIso8601(text)), text);
    }
}

TEST(DateTest, RefusesEveryOtherForm) {
    std::istringstream texts(
        "2024 2024-05-01 2024-05-01T12:30:00 2024-05-01T12:30:00+00:00 2024-05-01T12:30:00.5Z "
        "2024-05-01t12:30:00z 2024-02-30T00:00:00Z 2024-13-01T00:00:00Z 2024-00-01T00:00:00Z "
        "2024-01-01T24:00:00Z 2016-12-31T23:59:60Z +2024-01-01T00:00:00Z 10000-01-01T00:00:00Z "
        "+010000-01-01T00:00:00Z -0000-01-01T00:00:00Z 24-01-01T00:00:00Z 2024-1-01T00:00:00Z "
        "2024-01-01T-1:00:00Z 2024-01-01T00:00:00ZZ +99999999999-01-01T00:00:00Z "
        "+999999999-01-01T00:00:00Z 2024-01-01T1:000:00Z 2024-01-0101:00:00Z "
        "2024-12-31T23:59:059Z T Z - +");
    for (std::string text; texts >> text;) {
        EXPECT_THROW(parseIso8601(text), ScopeError) << text;
        EXPECT_THROW(parseIso8601(" " + text), ScopeError) << text;
    }
    EXPECT_THROW(parseIso8601(""), ScopeError);
}

TEST(Fixed2Test, PrintsAsPrintf) {
    const auto check = [](double value) {
        char ours[kFixed2MaxLength], theirs[400];
        const std::string_view written(ours, std::size_t(writeFixed2(value, ours) - ours));
        std::snprintf(theirs, sizeof theirs, "%.2f", value);
        ASSERT_EQ(written, theirs) << std::hex << std::bit_cast<std::uint64_t>(value);
    };
    for (const double edge : {0.0, 0.005, 0.125, 0x1p-11, 0x1p-12, 0x1p52 - 0.5, 0x1p52, 0x1p53,
                              0x1p63, 0x1p64, 1e300, kInfinity, std::nan("")}) {
        check(edge);
        check(-edge);
    }
    Dice dice(20240501);
    for (int i = 0; i < 40000 && !::testing::Test::HasFailure(); ++i) {
        check(std::bit_cast<double>(dice.bits()));
        // Eighths of hundredths hold every exact tie, and the neighbours of ties.
        const double tie = (dice.upTo(160000000) - 80000000) / 800.0;
        check(tie);
        check(std::nextafter(tie, dice.pick({kInfinity, -kInfinity})));
        check((dice.upTo(20000000) - 10000000) / 1000.0);
    }
}

std::string shortest(double value) {
    char text[kShortestMaxLength];
    return {text, writeShortest(value, text)};
}

// The fewest digits with which printf prints something that reads back.
std::string shortestPrinted(double value) {
    int digits = 0;  // behind the first
    std::string text = printed("%.0e", value);
    while (std::strtod(text.c_str(), nullptr) != value) {
        text = printed("%.*e", ++digits, value);
    }
    const std::size_t mark = text.find('e');
    const int exponent = std::atoi(text.c_str() + mark + 1);
    return exponent >= 16 || exponent < -5 ? text.substr(0, mark + 1) + std::to_string(exponent)
                                           : printed("%.*f", std::max(0, digits - exponent), value);
}

TEST(ShortestTest, ReadsBackAndNeedsEveryDigit) {
    Dice dice(7);
    for (int i = 0; i < 20000; ++i) {
        const double any = std::bit_cast<double>(dice.bits());
        const double fraction = static_cast<double>(dice.bits() >> 11) * 0x1p-53;
        const double value = i % 3 == 0   ? any
                             : i % 3 == 1 ? static_cast<double>(float(fraction * 120 - 9))
                                          : std::ldexp(fraction, dice.upTo(71) - 18);
        if (std::isfinite(value) && value != 0) {
            ASSERT_EQ(shortest(value), shortestPrinted(value));
        }
    }
    // The ends of the forms, and of two decimals that are equally near the even one.
    std::istringstream texts(
        "0 -0.0 1 -1800 100 1000000000000000 9007199254740991 9007199254740992 1e16 0.00001 "
        "0.00009999999999999999 5e-324 1.7976931348623157e308 2.2250738585072014e-308 "
        "0.0000152587890625 9.999999999999998 13.625411987304688");
    for (std::string text; texts >> text;) {
        EXPECT_EQ(shortest(std::strtod(text.c_str(), nullptr)), text);
    }
}

TEST(ParseNumberTest, TakesASignAndDigitsOnly) {
    Dice dice(3);
    const std::regex form("[+-]?[0-9]+");
    const auto check = [&](const std::string& text) {
        const bool whole = std::regex_match(text, form) && text.size() < 18;
        const auto as = [&]<class T>(T) {
            const long long value = std::strtoll(text.c_str(), nullptr, 10);
            return whole && std::in_range<T>(value) ? std::optional(T(value)) : std::nullopt;
        };
        ASSERT_EQ(parseInt32(text), as(std::int32_t{})) << text;
        ASSERT_EQ(parseUInt32(text), as(std::uint32_t{})) << text;
    };
    for (const char* text : {"2147483647", "-2147483648", "2147483648", "-2147483649", "-0", "-00",
                             "4294967295", "4294967296", "-1", "99999999999999999999"}) {
        check(text);
    }
    for (int i = 0; i < 10000; ++i) {
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
    EXPECT_EQ(uuid->bytes[0] + uuid->bytes[15], 0x01 + 0x89);
    for (const char* text :
         {"", "0123abcdef456789abcdef0123456789", "{0123abcd-ef45-6789-abcd-ef0123456789}",
          "0123abcd-ef45-6789-abcd-ef012345678", "0123abcd-ef45-6789-abcd-ef01234567890",
          "0123abcg-ef45-6789-abcd-ef0123456789", "0123abcd ef45-6789-abcd-ef0123456789",
          "0123abcde-f45-6789-abcd-ef0123456789", "0123abcd-ef45-6789-abcd-ef012345678\n",
          " 123abcd-ef45-6789-abcd-ef0123456789", "-0123abcd-ef45-6789-abcdef0123456789"}) {
        EXPECT_EQ(Uuid::parse(text), std::nullopt) << text;
    }
    std::set<std::string> seen;
    for (int i = 0; i < 200; ++i) {  // random ones are of version four, and differ
        const std::string text = Uuid::random().text();
        EXPECT_TRUE(text[14] == '4' && std::strchr("89AB", text[19]) != nullptr) << text;
        EXPECT_TRUE(seen.insert(text).second);
        EXPECT_EQ(Uuid::parse(text)->text(), text);
    }
}

TEST(Base64Test, ReadsExactlyWhatAnEncoderWrites) {
    for (const auto& [text, bytes] : {std::pair("", ""),
                                      {"Zg==", "f"},
                                      {"Zm8=", "fo"},
                                      {"Zm9v", "foo"},
                                      {"QUJZWmF6MDk+Pz8/", "ABYZaz09>???"},
                                      {"+/8=", "\xFB\xFF"},
                                      {"5puy57q/", "曲线"}}) {
        EXPECT_EQ(decodeBase64(text), bytes);
    }
    for (const char* text : {"Z",    "Zg",   "Zg=",  "Zm9",    "Zh==", "Zm9=", "Zg==Zg==", "=Zg=",
                             "Z=g=", "Z===", "====", "Zm9v\n", "Zm 9", "-_-_", "Zm9\xC3",  "Zm9@",
                             "Zm9[", "Zm9`", "Zm9{", "Zm9,",   "Zm9:", "Zm9v="}) {
        EXPECT_EQ(decodeBase64(text), std::nullopt) << text;
    }
}

// Each longest beginning of a character, and each byte that begins none, becomes one U+FFFD.
std::string repaired(std::string text) {
    static const std::regex whole(
        "[\x01-\x7F]|[\xC2-\xDF][\x80-\xBF]|\xE0[\xA0-\xBF][\x80-\xBF]|"
        "[\xE1-\xEC\xEE\xEF][\x80-\xBF]{2}|\xED[\x80-\x9F][\x80-\xBF]|"
        "\xF0[\x90-\xBF][\x80-\xBF]{2}|[\xF1-\xF3][\x80-\xBF]{3}|\xF4[\x80-\x8F][\x80-\xBF]{2}");
    static const std::regex beginning(
        "\xE0[\xA0-\xBF]|[\xE1-\xEC\xEE\xEF][\x80-\xBF]|\xED[\x80-\x9F]|"
        "\xF0[\x90-\xBF][\x80-\xBF]?|[\xF1-\xF3][\x80-\xBF]{1,2}|\xF4[\x80-\x8F][\x80-\xBF]?");
    constexpr auto kHere = std::regex_constants::match_continuous;
    std::string all;
    for (std::smatch found; !text.empty();) {
        const bool fits = std::regex_search(text, found, whole, kHere);
        const bool begins = fits || std::regex_search(text, found, beginning, kHere);
        all += fits ? found.str() : kReplacementCharacter;
        text.erase(0, begins ? std::size_t(found.length()) : 1);
    }
    return all;
}

TEST(Utf8Test, FindsAndRepairsIllFormedSequencesAndCutsBetweenCharacters) {
    // Around every border: continuations, overlong forms, surrogates, the last code point.
    const std::string_view bytes =
        "az\x7F\x80\x8F\x90\x9F\xA0\xBF\xC0\xC1\xC2\xDF\xE0\xE1\xED\xEE\xEF"
        "\xF0\xF1\xF4\xF5\xFF";
    Dice dice(5);
    for (int i = 0; i < 40000; ++i) {
        std::string text(dice.oneIn(4) ? 9 : 0, 'x');
        for (int length = dice.upTo(6); length > 0; --length) {
            text += bytes[dice.bits() % bytes.size()];
        }
        const std::string expected = repaired(text);
        ASSERT_EQ(repairUtf8(text), expected) << "input " << i;
        const auto invalid = firstInvalidUtf8(text);
        ASSERT_EQ(invalid.has_value(), expected != text) << "input " << i;
        if (invalid) {  // the first one is where the repaired text begins to differ
            ASSERT_EQ(expected.substr(*invalid, 3), kReplacementCharacter);
            ASSERT_EQ(text.substr(0, *invalid), expected.substr(0, *invalid));
        }
        std::size_t limit = dice.bits() % 12;
        const std::string_view prefix = utf8Prefix(expected, limit);
        while (firstInvalidUtf8(expected.substr(0, limit))) {
            --limit;
        }
        ASSERT_EQ(prefix, expected.substr(0, limit)) << "input " << i;
    }
}

}  // namespace
}  // namespace ferovane
