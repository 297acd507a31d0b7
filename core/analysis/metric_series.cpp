#include "core/analysis/metric_series.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "core/analysis/numbers.h"

namespace ferovane {

void MetricBucket::add(const MetricBucket& next) {
    last = next.last;
    minimum = std::min(minimum, next.minimum);
    maximum = std::max(maximum, next.maximum);
    // Two parts, so that no difference of huge values overflows; rounding must not carry a mean
    // past the values that it is the mean of.
    const double more = next.samples;
    const double weight = more / (samples + more);
    mean = std::clamp(mean * (1 - weight) + next.mean * weight, minimum, maximum);
    samples += std::min(next.samples, std::numeric_limits<std::uint32_t>::max() - samples);
}

void MetricSeries::append(Date date, std::optional<double> value) {
    const ObservationClock::Step step = clock_.advance(date);
    if (step == ObservationClock::Step::ignored) {
        return;
    }
    broken_ = broken_ || step != ObservationClock::Step::continues;
    if (step == ObservationClock::Step::setBack) {
        endAt(date, &MetricBucket::first, &MetricBucket::last, buckets_);
    }
    forgetBefore(date - spanSeconds_);
    if (!ifFinite(value)) {
        return;
    }
    const bool continues =
        !std::exchange(broken_, false) && !buckets_.empty() &&
        continuesObservation(buckets_.back().last, date, clock_.longestGapSeconds());
    const MetricBucket bucket{date, date, *value, *value, *value, 1, !continues};
    if (continues && belongsToLast(date)) {
        buckets_.back().add(bucket);
    } else {
        buckets_.push_back(bucket);
    }
}

bool MetricSeries::belongsToLast(Date date) const {
    const auto bucketOf = [&](Date moment) {
        return std::floor(moment.secondsSinceReference / bucketSeconds_);
    };
    return bucketOf(buckets_.back().first) == bucketOf(date);
}

void MetricSeries::forgetBefore(Date earliest) {
    const auto kept = std::ranges::lower_bound(buckets_, earliest, {}, &MetricBucket::last);
    buckets_.erase(buckets_.begin(), kept);
}

bool MetricSeries::restore(std::span<const MetricBucket> buckets) {
    const auto possible = [](const MetricBucket& it) {
        return std::isfinite(it.minimum) && std::isfinite(it.maximum) && it.samples > 0 &&
               it.minimum <= it.mean && it.mean <= it.maximum;
    };
    if (!inOrder(&MetricBucket::first, &MetricBucket::last, buckets) ||
        !std::ranges::all_of(buckets, possible)) {
        return false;
    }
    buckets_.assign(buckets.begin(), buckets.end());
    if (!buckets.empty()) {
        clock_.resume(buckets.back().last);
        forgetBefore(buckets.back().last - spanSeconds_);
    }
    return true;
}

}  // namespace ferovane
