// Which samples count, and where an observation breaks off: the one rule for time of all histories.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <optional>
#include <utility>

#include "core/model/date.h"

namespace ferovane {

// A monitor samples every second or few. After a longer pause (sleep, a suspended process) nothing
// is known of the time between, and an average over it would be invented.
inline constexpr double kLongestGapSeconds = 15;

// Whether a sample at `date` goes on from one at `last`: later, and not too much so. A clock that
// was set back ends an observation like a pause does.
inline bool continuesObservation(std::optional<Date> last, Date date,
                                 double longestGapSeconds = kLongestGapSeconds) {
    if (!last) {
        return false;
    }
    const double seconds = date - *last;
    return seconds > 0 && seconds <= longestGapSeconds;
}

// Whether a date is one that a double counts in seconds: 285 million years either way.
inline bool isMoment(Date date) {
    constexpr double kBeyond = 9007199254740992;  // 2 to the 53rd
    return std::abs(date.secondsSinceReference) < kBeyond;
}

// Follows the dates of samples. A second sample of one moment does not count, nor does one without
// a date. A jump of more than an hour, either way, may be one wrong date: it counts when the next
// sample follows it within an hour, and is forgotten when that goes on from before. So the sample
// that jumps first is lost. One owner, no locking.
class ObservationClock {
public:
    static constexpr double kFarSeconds = 60 * 60;

    enum class Step {
        ignored,    // the sample does not count: nothing may change
        begins,     // nothing is known of the time before it
        continues,  // what was observed since last() belongs together
        setBack     // begins, and what is dated later than it has no place in time any more
    };

    // Up to an hour: a monitor that samples every 30 s allows for longer gaps than one that does
    // each second.
    explicit ObservationClock(double longestGapSeconds = kLongestGapSeconds)
        : gap_(std::min(longestGapSeconds, kFarSeconds)) {}

    Step advance(Date date) {
        if (!isMoment(date) || date == last_) {
            return Step::ignored;
        }
        if (last_ && std::abs(date - *last_) > kFarSeconds &&
            !continuesObservation(jump_, date, kFarSeconds)) {
            jump_ = date;
            return Step::ignored;
        }
        jump_.reset();
        const std::optional<Date> before = std::exchange(last_, date);
        const bool interrupted = std::exchange(interrupted_, false);
        if (before && date < *before) {
            return Step::setBack;
        }
        return !interrupted && continuesObservation(before, date, gap_) ? Step::continues
                                                                        : Step::begins;
    }

    // What comes next begins; with a date, after what was observed up to then.
    void interrupt() { interrupted_ = true; }
    void resume(Date last) {
        last_ = last;
        interrupt();
    }

    std::optional<Date> last() const { return last_; }  // sample that counted
    double longestGapSeconds() const { return gap_; }

private:
    double gap_;
    std::optional<Date> last_;
    std::optional<Date> jump_;  // of the sample before, which is not believed yet
    bool interrupted_ = false;
};

// What a clock that was set back leaves of periods in the order of time: those that begin at `date`
// or later go, and one that reaches past it ends there. Its figures stay: they were measured.
template <class Periods, class Period>
void endAt(Date date, Date Period::*from, Date Period::*to, Periods& periods) {
    while (!periods.empty() && periods.back().*from >= date) {
        periods.pop_back();
    }
    if (!periods.empty()) {
        periods.back().*to = std::min(periods.back().*to, date);
    }
}

// Forgets the oldest of too many.
template <class Deque>
void keepLast(std::size_t most, Deque& items) {
    while (items.size() > most) {
        items.pop_front();
    }
}

// Whether periods lie in the order of time, none over another.
template <class Periods, class Period>
bool inOrder(Date Period::*from, Date Period::*to, const Periods& periods) {
    const Period* before = nullptr;
    for (const Period& period : periods) {
        if (!isMoment(period.*from) || !isMoment(period.*to) || period.*from > period.*to ||
            (before && period.*from < before->*to)) {
            return false;
        }
        before = &period;
    }
    return true;
}

}  // namespace ferovane
