// A metric, and the load of a day, in a unit square.
//
// Pure functions over values: any thread, and nothing that they return refers to what they got.
#pragma once

#include <array>
#include <deque>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "core/analysis/cpu_load_history.h"
#include "core/analysis/metric_series.h"
#include "core/model/date.h"

namespace ferovane {

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

// Places in the square are 0 to 1, from left to right and from bottom to top.

// What one column of the screen shows of one stretch.
struct ChartColumn {
    MetricBucket bucket;                 // all that fall into it, as one
    double x = 0;                        // the middle of the bucket
    double low = 0, mean = 0, high = 0;  // heights: a point of the line, and the band around it

    bool operator==(const ChartColumn&) const = default;
};

using ChartStretch = std::vector<ChartColumn>;  // from left to right; at least one

// The load of one CpuLoadStretch.
struct ChartBar {
    double left = 0, right = 0;
    // Where each band ends, stacked from the bottom; above the last, nobody looked.
    std::array<double, kCpuLoadBands> tops{};

    bool operator==(const ChartBar&) const = default;
};

struct ChartTick {
    double at = 0;  // along its side
    std::string label;

    bool operator==(const ChartTick&) const = default;
};

// Seconds by which the local clock is ahead of UTC at a moment, daylight saving included: whole
// quarters of an hour, as all time zones are today.
using UtcOffset = std::function<double(Date)>;

namespace MetricChart {

// Of the buckets that reach into the frame, one stretch for each time without a gap, with at most
// one column per point of the screen. A column keeps the lowest and the highest value at their own
// height, so that a spike of one sample stays as high as it was however narrow the chart; its mean
// is that of all its samples. Values beyond low and high, and middles beyond the sides, are moved
// to the edge; a frame without extent in time or columns shows nothing, one without height puts
// everything in its middle.
std::vector<ChartStretch> stretches(std::span<const MetricBucket> buckets, const ChartFrame& frame);

// What stands under a cursor at x: the column at that moment, else the nearest of the stretch that
// the moment lies in, the earlier of two. In a gap, and outside of the square, nothing, except
// within half a column of what is drawn. The stretches are those drawn with the frame.
std::optional<MetricBucket> bucketAt(std::span<const ChartStretch> stretches,
                                     const ChartFrame& frame, double x);

// The lowest and highest value of the buckets that reach between two dates; absent without any.
std::optional<ChartRange> range(std::span<const MetricBucket> buckets, Date from, Date to);

// The stretches that reach between two dates, cut at both; none when `to` is not after `from`.
std::vector<ChartBar> loadBars(const std::deque<CpuLoadStretch>& stretches, Date from, Date to);

// At most so many values between the bottom and the top, all multiples of a step of 1, 2 or 5 times
// a power of ten, the smallest that leaves so few. None for a frame without a finite height.
std::vector<ChartTick> valueTicks(const ChartFrame& frame, int most);

// At most so many moments, at which the local time of day is a multiple of the smallest step that
// leaves so few: 1 to 30 minutes, 1 to 12 hours or a day. Where the clock is set ahead, a time that
// is left out has no tick; where it is set back, one that comes twice has two. As "HH:MM". None
// when even days are too many.
std::vector<ChartTick> timeTicks(const ChartFrame& frame, int most, const UtcOffset& offset);

}  // namespace MetricChart
}  // namespace ferovane
