// Whether an applied power plan or profile made a difference.
#pragma once

#include <array>
#include <cstddef>
#include <deque>
#include <optional>
#include <string_view>

#include "core/model/date.h"

namespace ferovane {

// What is compared, at one moment.
struct OptimizationSample {
    Date date;
    std::optional<double> cpuUsage;        // percent
    std::optional<double> cpuTemperature;  // degrees Celsius
    std::optional<double> fanRpm;          // of the fastest fan
    std::optional<double> watts;           // power drawn, positive

    bool operator==(const OptimizationSample&) const = default;
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

// Compares two windows of the same length on either side of the last change. The one before ends at
// the change; the one after begins kSettleSeconds later, since heat follows slowly. They are as
// long as both sides allow, at most kLongestWindowSeconds. Neither reaches over a gap of more than
// 15 s or over another change, and a gap while the heat settles leaves no window after it. There is
// not enough data while the windows are shorter than kShortestWindowSeconds, or when load or
// temperature is missing in more than half of the samples of one.
//
// Bounded memory; appending takes constant time on average.
class OptimizationAssessment {
public:
    static constexpr double kSettleSeconds = 60;
    static constexpr double kShortestWindowSeconds = 120;
    static constexpr double kLongestWindowSeconds = 600;
    static constexpr double kLikeLoadPercent = 10;     // medians this close are like load
    static constexpr double kNotableCelsius = 2;       // a smaller difference is noise
    static constexpr std::size_t kMostSamples = 6000;  // in one window: ten a second

    // In the order of time; a clock that was set back is a gap. A sample without a finite date does
    // not count.
    void append(const OptimizationSample& sample);

    // A plan or profile took effect at `date`, or was taken back. Without a finite date there is
    // nothing to compare until the next change.
    void noteChange(Date date);

    // About the last change; not enough data without one.
    OptimizationResult assess() const;

private:
    using Samples = std::deque<OptimizationSample>;

    std::optional<Date> last_;     // sample
    std::optional<Date> changed_;  // by the last change
    Samples before_;               // the window before it
    Samples after_;                // the window after it
    bool settling_ = false;        // the heat has not yet followed the change
    bool interrupted_ = false;     // by a gap since the change: nothing more is added to `after_`
    Samples recent_;               // what may become the window before the next change
};

}  // namespace ferovane
