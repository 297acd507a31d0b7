// Whether an applied power plan or profile made a difference.
#pragma once

#include <cstddef>
#include <deque>
#include <optional>
#include <string_view>
#include <tuple>

#include "core/analysis/observation_clock.h"
#include "core/model/date.h"
#include "core/model/json_fields.h"

namespace ferovane {

// What is compared, at one moment.
struct OptimizationSample {
    Date date;
    std::optional<double> cpuUsage;        // percent
    std::optional<double> cpuTemperature;  // degrees Celsius
    std::optional<double> fanRpm;          // of the fastest fan
    std::optional<double> watts;           // power drawn, positive

    bool operator==(const OptimizationSample&) const = default;
    static constexpr auto jsonFields() {
        using R = OptimizationSample;
        return std::tuple{jsonField("date", &R::date), jsonField("cpuUsage", &R::cpuUsage),
                          jsonField("cpuTemperature", &R::cpuTemperature),
                          jsonField("fanRpm", &R::fanRpm), jsonField("watts", &R::watts)};
    }
};

// Medians: a single peak on either side moves them little.
struct OptimizationComparison {
    double before = 0, after = 0;

    double change() const { return after - before; }
    bool operator==(const OptimizationComparison&) const = default;
};

enum class OptimizationVerdict {
    notEnoughData,
    loadDiffers,  // the machine did other work, so heat proves nothing
    better,       // cooler at like load
    unchanged,
    worse
};
std::string_view title(OptimizationVerdict verdict);

struct OptimizationResult {
    OptimizationVerdict verdict = OptimizationVerdict::notEnoughData;
    double windowSeconds = 0;  // length of either window, also while it is too short
    // Each absent unless the metric is there on both sides. All absent without enough data.
    std::optional<OptimizationComparison> cpuUsage, cpuTemperature, fanRpm, watts;

    bool operator==(const OptimizationResult&) const = default;
};

enum class OptimizationPhase {
    noChange,     // there is nothing to compare
    noBaseline,   // the window before the change is too short for good
    settling,     // the heat follows the change
    collecting,   // the window after it grows; a result is there as soon as it is long enough
    interrupted,  // the window after it begins anew once the heat has settled again
    done
};
std::string_view title(OptimizationPhase phase);

enum class OptimizationInterruption { pause, clockSet, loadMissing, temperatureMissing };
std::string_view title(OptimizationInterruption interruption);

struct OptimizationProgress {
    OptimizationPhase phase = OptimizationPhase::noChange;
    std::optional<OptimizationInterruption> interruption;  // the last one, while interrupted
    double secondsLeft = 0;  // of settling, interruption or collecting, if nothing interrupts

    bool operator==(const OptimizationProgress&) const = default;
};

// Compares two windows of the same length on either side of the last change. The one before ends at
// the change; the one after begins kSettleSeconds later, since heat follows slowly. They are as
// long as both sides allow, at most kLongestWindowSeconds; there is not enough data while they are
// shorter than kShortestWindowSeconds. Samples without load or temperature do not count.
//
// Neither window reaches over another change, or over an interruption: a gap between samples or
// between those that count, or a clock that was set back. After one the heat settles again, and the
// window after the change begins anew; when it was long enough it is done instead.
//
// Bounded memory; appending takes constant time on average. One owner, no locking.
class OptimizationAssessment {
public:
    static constexpr double kSettleSeconds = 60;
    static constexpr double kShortestWindowSeconds = 120;
    static constexpr double kLongestWindowSeconds = 600;
    static constexpr double kLikeLoadPercent = 10;     // medians this close are like load
    static constexpr double kNotableCelsius = 2;       // a smaller difference is noise
    static constexpr std::size_t kMostSamples = 6000;  // in one window: ten a second

    explicit OptimizationAssessment(double longestGapSeconds = kLongestGapSeconds)
        : clock_(longestGapSeconds) {}

    void append(const OptimizationSample& sample);

    // A plan or profile took effect at `date`, or was taken back. Without a finite date there is
    // nothing to compare until the next change.
    void noteChange(Date date);

    // About the last change; not enough data without one.
    OptimizationResult assess() const;
    OptimizationProgress progress() const;

    // The last change with both windows, oldest first.
    struct State {
        std::optional<Date> changed;
        std::deque<OptimizationSample> before, after;
    };
    const State& state() const { return state_; }  // valid until the next call that changes it

    // Goes on from there, after a pause. False, and nothing changes, for what no assessment tells.
    bool restore(State state);

private:
    void interrupt(OptimizationInterruption why, Date date);
    void add(const OptimizationSample& sample);
    double longest() const;        // seconds that the windows may become
    double windowSeconds() const;  // that both have

    ObservationClock clock_;
    State state_;
    Date settlesFrom_;
    std::optional<OptimizationInterruption> interruption_;  // the last one since the change
    bool done_ = false;                                     // nothing more is added to `after`
    Date known_;  // of the last sample that counted, or the begin of the observation
    OptimizationInterruption missing_{};     // in the last one that did not
    std::deque<OptimizationSample> recent_;  // what may become the window before the next change
};

}  // namespace ferovane
