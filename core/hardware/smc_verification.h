// When a write to the controller counts as done, and when a fan counts as manual.
#pragma once

#include <functional>
#include <optional>

namespace ferovane::SMCVerification {

inline constexpr int kReadBackRounds = 45;             // reads at most, whatever the clock says
inline constexpr int kMatchesInARow = 2;               // one alone can be a value on its way past
inline constexpr double kMatchDistance = 1.0;          // exclusive: a rounded speed still matches
inline constexpr double kReadBackSeconds = 2.0;        // the wait that a user is told of
inline constexpr double kReadBackPauseSeconds = 0.05;  // between two reads

// The forced-fan mask has 16 bits; a reading outside 0 to this is none.
inline constexpr double kLargestFanMask = 65535.0;

// True once `read` has given a number within kMatchDistance of `target` kMatchesInARow times in a
// row; false when kReadBackRounds reads or `timeout` seconds have gone by without that. Whatever
// else `read` gives (nothing, NaN, an infinity) begins the row anew. `now` is in seconds; `wait`
// pauses between two reads. Passes on what the four operations throw.
bool waitFor(double target, double timeout, const std::function<double()>& now,
             const std::function<std::optional<double>()>& read, const std::function<void()>& wait);

// Whether fan `id` is manual: true, false (system automatic), or absent when it cannot be told.
// local: the fan's own mode key. flags: the forced-fan mask, asked only when there is no mode key.
// handoff: when present and not 0, an "automatic" cannot be trusted and becomes absent.
std::optional<bool> manualState(std::optional<double> local, std::optional<double> flags, int id,
                                std::optional<double> handoff);

}  // namespace ferovane::SMCVerification
