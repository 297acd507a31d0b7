// Stretches of time in which the processors were kept busy.
#pragma once

#include <cstddef>
#include <deque>
#include <optional>
#include <tuple>

#include "core/analysis/observation_clock.h"
#include "core/model/date.h"
#include "core/model/json_fields.h"

namespace ferovane {

struct SustainedLoadPeriod {
    Date from, to;
    double mean = 0;  // percent, weighted by time
    double peak = 0;  // percent

    double seconds() const { return to - from; }
    bool operator==(const SustainedLoadPeriod&) const = default;
    static constexpr auto jsonFields() {
        using R = SustainedLoadPeriod;
        return std::tuple{jsonField("from", &R::from), jsonField("to", &R::to),
                          jsonField("mean", &R::mean), jsonField("peak", &R::peak)};
    }
};

// A period begins where the load has reached kBeginPercent for kBeginSeconds, dips of up to
// kDipSeconds not counting; it ends where the load falls below kEndPercent for kEndSeconds, and at
// a gap or a sample without usage. A sample's usage is that of the time since the sample before. A
// clock that was set back takes with it what is dated later; a period that reaches past the sample
// ends there. Constant time and memory per sample. One owner, no locking.
class SustainedLoad {
public:
    static constexpr double kBeginPercent = 70;
    static constexpr double kBeginSeconds = 30;  // shorter work is over before anybody looks
    static constexpr double kDipSeconds = 5;
    static constexpr double kEndPercent = 50;
    static constexpr double kEndSeconds = 15;
    static constexpr std::size_t kMostPeriods = 100;

    explicit SustainedLoad(double longestGapSeconds = kLongestGapSeconds)
        : clock_(longestGapSeconds) {}

    void append(Date date, std::optional<double> usage);

    // The period that goes on; absent when there is none.
    std::optional<SustainedLoadPeriod> current() const;

    // The last ones that have ended, oldest first; valid until the next append or restore.
    const std::deque<SustainedLoadPeriod>& ended() const { return ended_; }

    // All that is kept: the ended ones and the one that goes on, which ends with being restored.
    // False, and nothing changes, for what no history tells.
    using State = std::deque<SustainedLoadPeriod>;
    State state() const;
    bool restore(const State& state);

private:
    struct Run {
        SustainedLoadPeriod busy;  // up to the last sample that was busy enough
        SustainedLoadPeriod all;   // with what may turn out to be its end
    };

    void extend(Date from, Date to, double usage);
    void end();

    ObservationClock clock_;
    std::optional<Run> run_;
    std::deque<SustainedLoadPeriod> ended_;
};

}  // namespace ferovane
