// A metric as lines in a unit square.
#pragma once

#include <optional>
#include <span>
#include <vector>

#include "core/analysis/metric_series.h"
#include "core/model/date.h"

namespace ferovane {

struct ChartPoint {
    double x = 0, y = 0;  // 0 to 1, from left to right and from bottom to top

    bool operator==(const ChartPoint&) const = default;
};

using ChartLine = std::vector<ChartPoint>;  // of one point where there is no more

// What the square shows.
struct ChartFrame {
    Date from, to;             // its left and its right side; finite
    double low = 0, high = 0;  // its bottom and its top
    int columns = 0;           // how many points of the screen it is wide
};

struct ChartRange {
    double low = 0, high = 0;

    bool operator==(const ChartRange&) const = default;
};

namespace MetricChart {

// Of the buckets that reach into the frame, one line per stretch without a gap, at most two points
// per column and line, never running to the left. The lowest and the highest value of each column
// are among them at their own height: however narrow the chart, a spike of one sample stays as high
// as it was. Values beyond low and high are moved to the edge; a frame without extent in time or
// columns shows nothing, one without height puts everything in its middle.
std::vector<ChartLine> lines(std::span<const MetricBucket> buckets, const ChartFrame& frame);

// The lowest and highest value of the buckets that reach between two dates; absent without any.
std::optional<ChartRange> range(std::span<const MetricBucket> buckets, Date from, Date to);

}  // namespace MetricChart
}  // namespace ferovane
