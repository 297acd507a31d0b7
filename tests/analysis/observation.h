// What the models of this folder share: dates, a clock that stumbles, an input without a finding.
#pragma once

#include <cmath>
#include <optional>

#include "core/analysis/diagnostic_input.h"
#include "core/model/date.h"
#include "tests/support/dice.h"

namespace ferovane::testing {

inline constexpr Date kStart{700000000};  // seconds that a double adds up exactly

inline std::optional<double> known(std::optional<double> value) {
    return value && std::isfinite(*value) ? value : std::nullopt;
}

// Seconds from one sample to the next that goes on from it; 0 when it does not.
inline double unbroken(std::optional<Date> last, Date date) {
    const double seconds = last ? date - *last : 0;
    return seconds > 0 && seconds <= 15 ? seconds : 0;
}

// Mostly a step further; at times a gap, the same moment, or a clock that was set back.
class Clock {
public:
    Clock(Dice& dice, double step, int stumblesOneIn = 30)
        : dice_(dice), step_(step), stumblesOneIn_(stumblesOneIn) {}
    Date next() {
        now_ += dice_.oneIn(stumblesOneIn_) ? dice_.pick({15, 15.001, 40, 0, -3, -70, 700}) : step_;
        return kStart + now_;
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
