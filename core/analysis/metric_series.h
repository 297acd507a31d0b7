// The last stretch of one metric, in buckets that keep its lowest, mean and highest value.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <tuple>
#include <vector>

#include "core/analysis/observation_clock.h"
#include "core/model/date.h"
#include "core/model/json_fields.h"

namespace ferovane {

// Consecutive samples.
struct MetricBucket {
    Date first, last;  // of its samples
    double minimum = 0, mean = 0, maximum = 0;
    std::uint32_t samples = 0;
    bool afterGap = false;  // nothing joins it to the bucket before

    Date middle() const { return first + (last - first) / 2; }
    void add(const MetricBucket& next);  // becomes one with what comes after it
    bool operator==(const MetricBucket&) const = default;
    static constexpr auto jsonFields() {
        using R = MetricBucket;
        return std::tuple{jsonField("first", &R::first),      jsonField("last", &R::last),
                          jsonField("minimum", &R::minimum),  jsonField("mean", &R::mean),
                          jsonField("maximum", &R::maximum),  jsonField("samples", &R::samples),
                          jsonField("afterGap", &R::afterGap)};
    }
};

// Bounded by its span: at most one bucket per bucket length and one per gap. Appending takes
// constant time, and time linear in the number of buckets when it forgets one. A plain value whose
// samples bring their dates, which count as ObservationClock says. One owner, no locking.
class MetricSeries {
public:
    MetricSeries(double bucketSeconds, double spanSeconds,
                 double longestGapSeconds = kLongestGapSeconds)
        : bucketSeconds_(bucketSeconds), spanSeconds_(spanSeconds), clock_(longestGapSeconds) {}

    // Records a sample and forgets what ended more than the span before it. A value that is absent
    // or not finite records nothing; when none has come for longer than a gap may be, the next one
    // begins after a gap, also within one bucket. A clock that was set back takes with it what is
    // dated later; a bucket that reaches past the sample ends there.
    void append(Date date, std::optional<double> value);

    // Oldest first; valid until the next append or restore.
    std::span<const MetricBucket> buckets() const { return buckets_; }

    // Takes over what another series has told; what comes next begins after a gap. False, and
    // nothing changes, for what no series tells.
    bool restore(std::span<const MetricBucket> buckets);

private:
    void forgetBefore(Date earliest);
    bool belongsToLast(Date date) const;

    double bucketSeconds_;
    double spanSeconds_;
    ObservationClock clock_;
    bool broken_ = false;  // since the last value
    std::vector<MetricBucket> buckets_;
};

}  // namespace ferovane
