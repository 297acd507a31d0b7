// The last stretch of one metric, in buckets that keep its lowest, mean and highest value.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "core/model/date.h"

namespace ferovane {

// Consecutive samples.
struct MetricBucket {
    Date first, last;  // of its samples
    double minimum = 0, mean = 0, maximum = 0;
    std::uint32_t samples = 0;
    bool afterGap = false;  // nothing joins it to the bucket before

    Date middle() const { return first + (last - first) / 2; }
    bool operator==(const MetricBucket&) const = default;
};

// Bounded by its span: at most one bucket per bucket length and one per 15 seconds' gap. Appending
// takes constant time on average. A plain value without a clock: every sample brings its date.
class MetricSeries {
public:
    MetricSeries(double bucketSeconds, double spanSeconds);

    // Records a sample and forgets what ended more than the span before it. A value that is absent
    // or not finite records nothing; when none has come for more than 15 s, the next one begins
    // after a gap, also within one bucket. A clock that was set back takes with it whatever is
    // dated later than the sample; a second sample of one moment does not count.
    void append(Date date, std::optional<double> value);

    // Oldest first; valid until the next append.
    std::span<const MetricBucket> buckets() const;

private:
    void add(const MetricBucket& bucket);
    void forgetBefore(Date earliest);
    void forgetAfter(Date date);
    bool belongsToLast(Date date) const;

    double bucketSeconds_;
    double spanSeconds_;
    std::vector<MetricBucket> buckets_;
    std::size_t forgotten_ = 0;  // buckets at the front that are no longer part of the series
};

}  // namespace ferovane
