// What the models of this folder share: dates, a clock that stumbles, an input without a finding.
#pragma once

#include <cmath>
#include <optional>
#include <utility>

#include "core/analysis/diagnostic_input.h"
#include "core/model/date.h"
#include "tests/support/dice.h"

namespace ferovane::testing {

inline constexpr Date kStart{700000000};  // seconds that a double adds up exactly

inline std::optional<double> known(std::optional<double> value) {
    return value && std::isfinite(*value) ? value : std::nullopt;
}

// Seconds from one sample to the next that goes on from it; 0 when it does not.
inline double unbroken(std::optional<Date> last, Date date, double gap = 15) {
    const double seconds = last ? date - *last : 0;
    return seconds > 0 && seconds <= gap ? seconds : 0;
}

// Which samples count, and which go on from the one before that did.
class TimeModel {
public:
    explicit TimeModel(double gap = 15) : gap_(gap) {}

    struct Seen {
        bool counts = false, goesOn = false, setBack = false;
        std::optional<Date> before = {};  // the sample that counted last
    };
    Seen see(Date date) {
        if (!(std::abs(date - kStart) < 9e15) || date == last_ || date == doubtful_) {
            return {};
        }
        const double step = last_ ? date - *last_ : 0;
        const bool confirms = unbroken(doubtful_, date, 3600) > 0;
        doubtful_ = std::abs(step) > 3600 && !confirms ? std::optional(date) : std::nullopt;
        if (doubtful_) {
            return {};
        }
        const bool goesOn = !std::exchange(interrupted_, false) && unbroken(last_, date, gap_) > 0;
        return {true, goesOn, step < 0, std::exchange(last_, date)};
    }
    // What was told so far is there again, and nobody knows what came after it.
    void interrupt() { interrupted_ = true; }

private:
    double gap_;
    bool interrupted_ = false;
    std::optional<Date> last_, doubtful_;
};

// Mostly a step further; at times a gap, the same moment, a clock that was set back or far ahead,
// for one sample or for good, or no moment at all.
class Clock {
public:
    Clock(Dice& dice, double step, int stumblesOneIn = 30)
        : dice_(dice), step_(step), stumblesOneIn_(stumblesOneIn) {}
    Date next() { return next(step_); }
    Date next(double step) {
        if (!dice_.oneIn(stumblesOneIn_)) {
            return kStart + (now_ += step);
        }
        const double leap = dice_.pick(
            {0,       15, 15.0625, 40,   75,    75.0625,    700,     3600, 3600.0625, 130000,
             -0.0625, -3, -70,     -700, -3600, -3600.0625, -130000, kNaN, kInfinity, 1e300});
        const bool once = dice_.oneIn(3) || !(std::abs(leap) < 1e6);
        now_ += once ? 0 : leap;
        return kStart + (once ? now_ + leap : now_);
    }

private:
    Dice& dice_;
    double step_;
    int stumblesOneIn_;
    double now_ = 0;
};

inline DiagnosticInput unremarkable(double seconds) {
    DiagnosticInput input;
    Snapshot& snapshot = input.snapshot;
    snapshot.date = kStart + seconds;
    snapshot.cpuUsage = 20;
    snapshot.sensors = {{"TC0P", "CPU · TC0P", 50}, {"TG0P", "GPU · TG0P", 45}};
    snapshot.speedLimit = snapshot.schedulerLimit = 100;
    snapshot.availableCPUs = snapshot.totalCPUs = 8;
    snapshot.acPower = true;
    snapshot.memoryPressure = MemoryPressure::normal;
    input.processDate = snapshot.date;
    input.processSeconds = 60;
    input.blockers = 0;
    return input;
}

}  // namespace ferovane::testing
