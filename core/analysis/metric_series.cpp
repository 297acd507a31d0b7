#include "core/analysis/metric_series.h"

#include <algorithm>
#include <cmath>

#include "core/analysis/observation_gap.h"

namespace ferovane {
namespace {

void addSample(Date date, double value, MetricBucket& bucket) {
    ++bucket.samples;
    bucket.last = date;
    bucket.minimum = std::min(bucket.minimum, value);
    bucket.maximum = std::max(bucket.maximum, value);
    // Two halves, so that no difference of huge values overflows; rounding must not carry a mean
    // past the values that it is the mean of.
    const double weight = 1.0 / bucket.samples;
    bucket.mean =
        std::clamp(bucket.mean * (1 - weight) + value * weight, bucket.minimum, bucket.maximum);
}

}  // namespace

MetricSeries::MetricSeries(double bucketSeconds, double spanSeconds)
    : bucketSeconds_(bucketSeconds), spanSeconds_(spanSeconds) {}

void MetricSeries::append(Date date, std::optional<double> value) {
    if (!std::isfinite(date.secondsSinceReference)) {
        return;
    }
    forgetBefore(date - spanSeconds_);
    if (!value || !std::isfinite(*value)) {
        return;
    }
    forgetAfter(date);
    const auto recorded = buckets();
    if (!recorded.empty() && recorded.back().last == date) {
        return;
    }
    const bool continues = !recorded.empty() && continuesObservation(recorded.back().last, date);
    if (continues && belongsToLast(date)) {
        addSample(date, *value, buckets_.back());
    } else {
        add({date, date, *value, *value, *value, 1, !continues});
    }
}

std::span<const MetricBucket> MetricSeries::buckets() const {
    return std::span(buckets_).subspan(forgotten_);
}

bool MetricSeries::belongsToLast(Date date) const {
    const auto bucketOf = [&](Date moment) {
        return std::floor(moment.secondsSinceReference / bucketSeconds_);
    };
    return bucketOf(buckets_.back().first) == bucketOf(date);
}

void MetricSeries::forgetBefore(Date earliest) {
    while (forgotten_ < buckets_.size() && buckets_[forgotten_].last < earliest) {
        ++forgotten_;
    }
}

void MetricSeries::add(const MetricBucket& bucket) {
    // Rather than grow, the living move over the dead: at most eight moves for each bucket added.
    if (buckets_.size() == buckets_.capacity() && forgotten_ > buckets_.size() / 8) {
        buckets_.erase(buckets_.begin(),
                       buckets_.begin() + static_cast<std::ptrdiff_t>(forgotten_));
        forgotten_ = 0;
    }
    buckets_.push_back(bucket);
}

void MetricSeries::forgetAfter(Date date) {
    while (buckets_.size() > forgotten_ && buckets_.back().last > date) {
        buckets_.pop_back();
    }
}

}  // namespace ferovane
