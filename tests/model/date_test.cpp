#include "core/model/date.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "core/model/scope_error.h"

namespace ferovane {
namespace {

struct Moment {
    double unixSeconds;
    const char* text;
};

constexpr Moment kMoments[] = {
    {978307200, "2001-01-01T00:00:00Z"},
    {0, "1970-01-01T00:00:00Z"},
    {-1, "1969-12-31T23:59:59Z"},
    {951782400, "2000-02-29T00:00:00Z"},
    {951868800, "2000-03-01T00:00:00Z"},
    {1709251199, "2024-02-29T23:59:59Z"},
    {1709251200, "2024-03-01T00:00:00Z"},
    {1735689599, "2024-12-31T23:59:59Z"},
    {4107542399, "2100-02-28T23:59:59Z"},
    {4107542400, "2100-03-01T00:00:00Z"},  // 2100 has no leap day
    {-2203891200, "1900-03-01T00:00:00Z"},
    {-62135596800, "0001-01-01T00:00:00Z"},
    {-62135596801, "0000-12-31T23:59:59Z"},
    {-62162208000, "0000-02-28T00:00:00Z"},
    {-62167219201, "-0001-12-31T23:59:59Z"},
    {253402300799, "9999-12-31T23:59:59Z"},
    {253402300800, "+10000-01-01T00:00:00Z"},
};

TEST(DateTest, WritesAndReadsEveryCentury) {
    for (const Moment& moment : kMoments) {
        EXPECT_EQ(iso8601(Date::fromUnixSeconds(moment.unixSeconds)), moment.text);
        EXPECT_EQ(parseIso8601(moment.text).unixSeconds(), moment.unixSeconds) << moment.text;
    }
}

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

TEST(DateTest, DropsFractionsTowardsThePast) {
    EXPECT_EQ(iso8601(Date{0.999}), "2001-01-01T00:00:00Z");
    EXPECT_EQ(iso8601(Date{-0.001}), "2000-12-31T23:59:59Z");
}

TEST(DateTest, WritesTheNearestCountableDate) {
    const std::string last = iso8601(Date{9007199254740992.0});
    const std::string first = iso8601(Date{-9007199254740992.0});
    EXPECT_EQ(last.substr(0, 6), "+28542");
    EXPECT_LE(last.size(), kIso8601MaxLength);
    EXPECT_EQ(parseIso8601(last).secondsSinceReference, 9007199254740992.0);
    EXPECT_EQ(parseIso8601(first).secondsSinceReference, -9007199254740992.0);
    EXPECT_EQ(iso8601(Date{std::numeric_limits<double>::infinity()}), last);
    EXPECT_EQ(iso8601(Date{-1e300}), first);
    EXPECT_EQ(iso8601(Date{std::nan("")}), "2001-01-01T00:00:00Z");
}

TEST(DateTest, RefusesEveryOtherForm) {
    for (const char* text : {"",
                             "2024",
                             "2024-05-01",
                             "2024-05-01T12:30:00",
                             "2024-05-01T12:30:00+00:00",
                             "2024-05-01T12:30:00.5Z",
                             "2024-05-01 12:30:00Z",
                             "2024-05-01t12:30:00z",
                             "2024-02-30T00:00:00Z",
                             "2023-02-29T00:00:00Z",
                             "2024-13-01T00:00:00Z",
                             "2024-00-01T00:00:00Z",
                             "2024-01-00T00:00:00Z",
                             "2024-01-01T24:00:00Z",
                             "2024-01-01T00:60:00Z",
                             "2016-12-31T23:59:60Z",
                             "+2024-01-01T00:00:00Z",
                             "10000-01-01T00:00:00Z",
                             "+010000-01-01T00:00:00Z",
                             "-0000-01-01T00:00:00Z",
                             "24-01-01T00:00:00Z",
                             "2024-1-01T00:00:00Z",
                             "2024-01-01T-1:00:00Z",
                             "2024-01-01T00:00:00ZZ",
                             " 2024-01-01T00:00:00Z",
                             "+99999999999-01-01T00:00:00Z",
                             "+999999999-01-01T00:00:00Z"}) {
        try {
            parseIso8601(text);
            ADD_FAILURE() << text;
        } catch (const ScopeError& error) {
            EXPECT_EQ(error.message(), "日期格式无效") << text;
        }
    }
}

TEST(DateTest, NowIsTheWallClock) {
    EXPECT_GT(Date::now(), parseIso8601("2024-01-01T00:00:00Z"));
    EXPECT_LT(Date::now(), parseIso8601("2200-01-01T00:00:00Z"));
}

}  // namespace
}  // namespace ferovane
