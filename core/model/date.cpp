#include "core/model/date.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <optional>

#include "core/model/scope_error.h"

namespace ferovane {
namespace {

constexpr double kCountableSeconds = 9007199254740992.0;  // 2^53
constexpr std::int64_t kSecondsPerDay = 86400;

// Days are counted from 1 March 2000: there a cycle of 400 years begins, each leap day is the last
// day of its year, and no month's beginning depends on it.
constexpr std::int64_t kReferenceDay = 306;  // 2001-01-01
constexpr std::int64_t kDaysPer400Years = 146097;
constexpr std::int64_t kDaysPer100Years = 36524;
constexpr std::int64_t kDaysPer4Years = 1461;
constexpr std::int64_t kDaysPerYear = 365;
constexpr std::array<int, 12> kMonthStart{0, 31, 61, 92, 122, 153, 184, 214, 245, 275, 306, 337};

struct Civil {
    std::int64_t year;
    int month, day;  // from 1
};

constexpr std::int64_t floorDivide(std::int64_t value, std::int64_t by) {
    return value / by - (value % by < 0 ? 1 : 0);
}

Civil civilFromDay(std::int64_t day) {
    const std::int64_t cycle = floorDivide(day, kDaysPer400Years);
    std::int64_t rest = day - cycle * kDaysPer400Years;
    // The last century of a cycle and the last year of four are a day longer than the others.
    const std::int64_t century = std::min<std::int64_t>(rest / kDaysPer100Years, 3);
    rest -= century * kDaysPer100Years;
    const std::int64_t four = rest / kDaysPer4Years;
    rest -= four * kDaysPer4Years;
    const std::int64_t year = std::min<std::int64_t>(rest / kDaysPerYear, 3);
    const int dayOfYear = static_cast<int>(rest - year * kDaysPerYear);

    int month = dayOfYear / 31;  // this one or the one before the right one
    if (month < 11 && kMonthStart[static_cast<std::size_t>(month) + 1] <= dayOfYear) {
        ++month;
    }
    const bool nextYear = month >= 10;  // January and February
    return {2000 + 400 * cycle + 100 * century + 4 * four + year + (nextYear ? 1 : 0),
            nextYear ? month - 9 : month + 3,
            dayOfYear - kMonthStart[static_cast<std::size_t>(month)] + 1};
}

std::int64_t dayFromCivil(const Civil& civil) {
    const int month = civil.month >= 3 ? civil.month - 3 : civil.month + 9;
    const std::int64_t years = civil.year - (civil.month >= 3 ? 2000 : 2001);
    return kDaysPerYear * years + floorDivide(years, 4) - floorDivide(years, 100) +
           floorDivide(years, 400) + kMonthStart[static_cast<std::size_t>(month)] + civil.day - 1;
}

char* writeTwo(int value, char* out) {
    *out++ = static_cast<char>('0' + value / 10);
    *out++ = static_cast<char>('0' + value % 10);
    return out;
}

char* writeYear(std::int64_t year, char* out) {
    if (year < 0) {
        *out++ = '-';
        year = -year;
    } else if (year > 9999) {
        *out++ = '+';
    }
    for (std::int64_t digits = 1000; digits > year && digits > 1; digits /= 10) {
        *out++ = '0';
    }
    return std::to_chars(out, out + 9, year).ptr;
}

// The digits of a field at the front of `text`, taken off it; absent unless they are all digits.
std::optional<int> takeNumber(std::string_view& text, std::size_t length) {
    int value = 0;
    const char* const end = text.data() + std::min(length, text.size());
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (length == 0 || text.size() < length || error != std::errc() || stop != end || value < 0) {
        return std::nullopt;
    }
    text.remove_prefix(length);
    return value;
}

bool takeMark(std::string_view& text, char mark) {
    if (text.empty() || text.front() != mark) {
        return false;
    }
    text.remove_prefix(1);
    return true;
}

std::optional<Date> readFields(std::string_view text) {
    const bool negative = takeMark(text, '-');
    if (!negative) {
        takeMark(text, '+');
    }
    const auto year = takeNumber(text, std::min<std::size_t>(text.find('-'), 10));
    const bool yearEnds = takeMark(text, '-');
    const auto month = takeNumber(text, 2);
    const bool monthEnds = takeMark(text, '-');
    const auto day = takeNumber(text, 2);
    const bool dayEnds = takeMark(text, 'T');
    const auto hour = takeNumber(text, 2);
    const bool hourEnds = takeMark(text, ':');
    const auto minute = takeNumber(text, 2);
    const bool minuteEnds = takeMark(text, ':');
    const auto second = takeNumber(text, 2);
    const bool complete = yearEnds && monthEnds && dayEnds && hourEnds && minuteEnds && text == "Z";
    if (!complete || !year || !month || !day || !hour || !minute || !second || *month < 1 ||
        *month > 12) {
        return std::nullopt;
    }
    const std::int64_t days =
        dayFromCivil({negative ? -std::int64_t{*year} : *year, *month, *day}) - kReferenceDay;
    return Date{static_cast<double>(days * kSecondsPerDay + *hour * 3600 + *minute * 60 + *second)};
}

}  // namespace

Date Date::now() {
    const std::chrono::duration<double> sinceEpoch =
        std::chrono::system_clock::now().time_since_epoch();
    return fromUnixSeconds(sinceEpoch.count());
}

Date Date::fromUnixSeconds(double seconds) {
    return {seconds - kReferenceUnixSeconds};
}

double Date::unixSeconds() const {
    return secondsSinceReference + kReferenceUnixSeconds;
}

char* writeIso8601(Date date, char* out) {
    const double given = std::isnan(date.secondsSinceReference) ? 0 : date.secondsSinceReference;
    const auto seconds = static_cast<std::int64_t>(
        std::floor(std::clamp(given, -kCountableSeconds, kCountableSeconds)));
    const std::int64_t day = floorDivide(seconds, kSecondsPerDay);
    const int secondOfDay = static_cast<int>(seconds - day * kSecondsPerDay);
    const Civil civil = civilFromDay(day + kReferenceDay);

    out = writeYear(civil.year, out);
    *out++ = '-';
    out = writeTwo(civil.month, out);
    *out++ = '-';
    out = writeTwo(civil.day, out);
    *out++ = 'T';
    out = writeTwo(secondOfDay / 3600, out);
    *out++ = ':';
    out = writeTwo(secondOfDay / 60 % 60, out);
    *out++ = ':';
    out = writeTwo(secondOfDay % 60, out);
    *out++ = 'Z';
    return out;
}

std::string iso8601(Date date) {
    std::array<char, kIso8601MaxLength> text;
    return {text.data(), writeIso8601(date, text.data())};
}

Date parseIso8601(std::string_view text) {
    const std::optional<Date> date = readFields(text);
    // Whatever was out of range, or written with other digits than we write, comes back different.
    if (!date || iso8601(*date) != text) {
        throw ScopeError("日期格式无效");
    }
    return *date;
}

}  // namespace ferovane
