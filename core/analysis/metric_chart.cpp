#include "core/analysis/metric_chart.h"

#include <algorithm>
#include <cmath>

namespace ferovane::MetricChart {
namespace {

constexpr double kMiddle = 0.5;

// A bucket that reaches over a side belongs to the frame: its peak may lie within.
bool reachesInto(const MetricBucket& bucket, Date from, Date to) {
    return bucket.last >= from && bucket.first <= to;
}

double xOf(const MetricBucket& bucket, const ChartFrame& frame) {
    return std::clamp((bucket.middle() - frame.from) / (frame.to - frame.from), 0.0, 1.0);
}

double yOf(double value, const ChartFrame& frame) {
    if (!(frame.high > frame.low) || !std::isfinite(frame.high / 2 - frame.low / 2)) {
        return kMiddle;
    }
    // Halved, since the distance of two finite values may not be finite.
    const double y = (value / 2 - frame.low / 2) / (frame.high / 2 - frame.low / 2);
    return std::clamp(y, 0.0, 1.0);
}

int columnOf(const MetricBucket& bucket, const ChartFrame& frame) {
    const double column = std::floor(xOf(bucket, frame) * frame.columns);
    return std::min(static_cast<int>(column), frame.columns - 1);
}

// The buckets of one line that fall into one column.
struct Column {
    const MetricBucket* lowest;
    const MetricBucket* highest;

    explicit Column(const MetricBucket& bucket) : lowest(&bucket), highest(&bucket) {}

    void add(const MetricBucket& bucket) {
        if (bucket.minimum < lowest->minimum) {
            lowest = &bucket;
        }
        if (bucket.maximum > highest->maximum) {
            highest = &bucket;
        }
    }
};

void draw(const Column& column, const ChartFrame& frame, ChartLine& line) {
    const ChartPoint low{xOf(*column.lowest, frame), yOf(column.lowest->minimum, frame)};
    const ChartPoint high{xOf(*column.highest, frame), yOf(column.highest->maximum, frame)};
    if (low == high) {
        line.push_back(low);
        return;
    }
    // In the order of time; within one bucket it is not known, and the nearer end comes first.
    const double from = line.empty() ? low.y : line.back().y;
    const bool lowFirst =
        low.x != high.x ? low.x < high.x : std::abs(low.y - from) <= std::abs(high.y - from);
    line.push_back(lowFirst ? low : high);
    line.push_back(lowFirst ? high : low);
}

}  // namespace

std::vector<ChartLine> lines(std::span<const MetricBucket> buckets, const ChartFrame& frame) {
    std::vector<ChartLine> lines;
    if (!(frame.to > frame.from) || !std::isfinite(frame.to - frame.from) || frame.columns < 1) {
        return lines;
    }
    std::optional<Column> column;
    int columnIndex = 0;
    bool broken = true;  // since the last bucket that was drawn
    for (const MetricBucket& bucket : buckets) {
        broken = broken || bucket.afterGap;
        if (!reachesInto(bucket, frame.from, frame.to)) {
            continue;
        }
        const int index = columnOf(bucket, frame);
        if (column && !broken && index == columnIndex) {
            column->add(bucket);
            continue;
        }
        if (column) {
            draw(*column, frame, lines.back());
        }
        if (broken) {
            lines.emplace_back();
        }
        column.emplace(bucket);
        columnIndex = index;
        broken = false;
    }
    if (column) {
        draw(*column, frame, lines.back());
    }
    return lines;
}

std::optional<ChartRange> range(std::span<const MetricBucket> buckets, Date from, Date to) {
    std::optional<ChartRange> range;
    for (const MetricBucket& bucket : buckets) {
        if (reachesInto(bucket, from, to)) {
            range = range ? ChartRange{std::min(range->low, bucket.minimum),
                                       std::max(range->high, bucket.maximum)}
                          : ChartRange{bucket.minimum, bucket.maximum};
        }
    }
    return range;
}

}  // namespace ferovane::MetricChart
