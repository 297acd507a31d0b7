// Stretches of time in which the processors were kept busy.
#pragma once

#include <cstddef>
#include <deque>
#include <optional>

#include "core/model/date.h"

namespace ferovane {

struct SustainedLoadPeriod {
    Date from, to;
    double mean = 0;  // percent, weighted by time
    double peak = 0;  // percent

    double seconds() const { return to - from; }
    bool operator==(const SustainedLoadPeriod&) const = default;
};

// A period begins where the load has reached kBeginPercent for kBeginSeconds, dips of up to
// kDipSeconds not counting; it ends where the load falls below kEndPercent for kEndSeconds, and at
// a gap of more than 15 s or a sample without usage. A sample's usage is that of the time since the
// sample before. Constant time and memory per sample.
class SustainedLoad {
public:
    static constexpr double kBeginPercent = 70;
    static constexpr double kBeginSeconds = 30;  // shorter work is over before anybody looks
    static constexpr double kDipSeconds = 5;
    static constexpr double kEndPercent = 50;
    static constexpr double kEndSeconds = 15;
    static constexpr std::size_t kMostPeriods = 100;

    void append(Date date, std::optional<double> usage);

    // The period that goes on; absent when there is none.
    std::optional<SustainedLoadPeriod> current() const;

    // The last ones that have ended, oldest first.
    const std::deque<SustainedLoadPeriod>& ended() const { return ended_; }

private:
    struct Run {
        SustainedLoadPeriod busy;  // up to the last sample that was busy enough
        SustainedLoadPeriod all;   // with what may turn out to be its end
        bool confirmed = false;
    };

    void extend(Date from, Date to, double usage);
    void end();

    std::optional<Run> run_;
    std::optional<Date> last_;
    std::deque<SustainedLoadPeriod> ended_;
};

}  // namespace ferovane
