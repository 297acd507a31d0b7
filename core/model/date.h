// A point in time and its two text forms.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace ferovane {

// Seconds since 2001-01-01 00:00:00 UTC, the form in which control messages carry dates.
struct Date {
    double secondsSinceReference = 0;

    // The wall clock. Rules never call this: they are handed their dates.
    static Date now();
    static Date fromUnixSeconds(double seconds);
    double unixSeconds() const;

    auto operator<=>(const Date&) const = default;
};

inline constexpr double kReferenceUnixSeconds = 978307200.0;  // 2001-01-01 in Unix time

// Seconds from `earlier` to `later`.
constexpr double operator-(Date later, Date earlier) {
    return later.secondsSinceReference - earlier.secondsSinceReference;
}
constexpr Date operator+(Date date, double seconds) {
    return {date.secondsSinceReference + seconds};
}
constexpr Date operator-(Date date, double seconds) {
    return {date.secondsSinceReference - seconds};
}

// "2024-05-01T12:30:00Z": UTC, whole seconds (fractions are dropped towards the past). Years of
// more than four digits and before year 0 are written with a sign; a date beyond what a double
// counts in whole seconds (285 million years either way) is written as the last that it does, NaN
// as the reference date.
std::string iso8601(Date date);

// The longest that writeIso8601 writes: a sign, nine digits of the year, "-12-31T23:59:59Z".
inline constexpr std::size_t kIso8601MaxLength = 26;

// The same into a buffer of at least kIso8601MaxLength bytes, without allocating or terminating;
// returns the end of what was written.
char* writeIso8601(Date date, char* out);

// Reads exactly the form that iso8601 writes; throws ScopeError otherwise.
Date parseIso8601(std::string_view text);

}  // namespace ferovane
