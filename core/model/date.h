// A point in time and its two text forms.
#pragma once

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
// more than four digits and before year 0 are written with a sign; a date that is not finite or
// lies beyond what can be counted is written as the nearest date that can.
std::string iso8601(Date date);

// Reads exactly the form that iso8601 writes; throws ScopeError otherwise.
Date parseIso8601(std::string_view text);

}  // namespace ferovane
