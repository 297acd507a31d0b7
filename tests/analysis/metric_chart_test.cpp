#include "core/analysis/metric_chart.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "tests/analysis/observation.h"

namespace ferovane::testing {
namespace {

using Buckets = std::vector<MetricBucket>;
using Lines = std::vector<ChartLine>;

TEST(MetricChartTest, ShowsNothingWithoutExtentAndAFlatLineWithoutHeight) {
    const Buckets flat{{kStart, kStart, 7, 7, 7, 1, false}};
    const Buckets tall{{kStart, kStart, -1.7e308, 0, 1.7e308, 1, false}};
    const Date to = kStart + 100, never{-kInfinity}, ever{kInfinity};
    const struct {
        const Buckets& buckets;
        ChartFrame frame;
        Lines lines;
    } cases[] = {
        {flat, {kStart, kStart, 0, 10, 100}, {}},
        {flat, {to, kStart, 0, 10, 100}, {}},
        {flat, {kStart, to, 0, 10, 0}, {}},
        {flat, {never, kStart, 0, 10, 9}, {}},
        {flat, {kStart, ever, 0, 10, 9}, {}},
        {flat, {kStart, to, 7, 7, 1}, {{{0, 0.5}}}},
        {flat, {kStart, to, -kInfinity, 7, 100}, {{{0, 0.5}}}},
        {flat, {kStart, to, 0, 28, 100}, {{{0, 0.25}}}},
        {tall, {kStart, to, -1.7e308, 1.7e308, 1}, {{{0, 0}, {0, 1}}}},
    };
    for (const auto& [buckets, frame, lines] : cases) {
        EXPECT_EQ(MetricChart::lines(buckets, frame), lines) << &frame - &cases[0].frame;
    }
}

// One column of one line, and what is drawn of it.
struct Column {
    std::size_t line;
    double column;
    ChartPoint low, high;
};

// The same, one bucket after the other: a spike of one sample stays as high as it was.
TEST(MetricChartTest, DrawsTheLowestAndTheHighestOfEveryColumn) {
    for (unsigned seed = 0; seed < 600; ++seed) {
        Dice dice(seed);
        Clock clock(dice, dice.pick({1, 4, 9}));
        MetricSeries series(5, 7200);
        for (int i = 0; i < 300; ++i) {
            series.append(clock.next(), dice.oneIn(20) ? dice.upTo(100) : 40 + dice.upTo(3));
        }
        const Date from = kStart + dice.upTo(1000), to = from + 1 + dice.upTo(2000);
        const ChartFrame frame{from, to, 20, 60, dice.oneIn(2) ? 1 + dice.upTo(10) : 500};
        std::vector<Column> columns;
        std::optional<ChartRange> range;
        bool broken = true;
        for (const MetricBucket& it : series.buckets()) {
            broken = broken || it.afterGap;
            if (it.last < from || it.first > to) {
                continue;
            }
            const double x = std::clamp((it.middle() - from) / (to - from), 0.0, 1.0);
            const double column = std::min(std::floor(x * frame.columns), frame.columns - 1.0);
            const ChartPoint low{x, it.minimum}, high{x, it.maximum};
            if (broken || columns.back().column != column) {
                const std::size_t line =
                    columns.empty() ? 0 : columns.back().line + (broken ? 1 : 0);
                columns.push_back({line, column, low, high});
            }
            Column& drawn = columns.back();
            drawn.low = low.y < drawn.low.y ? low : drawn.low;
            drawn.high = high.y > drawn.high.y ? high : drawn.high;
            range = range ? range : ChartRange{low.y, high.y};
            range = ChartRange{std::min(range->low, low.y), std::max(range->high, high.y)};
            broken = false;
        }
        Lines expected(columns.empty() ? 0 : columns.back().line + 1);
        for (auto& [line, column, low, high] : columns) {
            low.y = std::clamp((low.y - 20) / 40, 0.0, 1.0);
            high.y = std::clamp((high.y - 20) / 40, 0.0, 1.0);
            // In the order of time; of one moment the nearer first.
            ChartLine& points = expected[line];
            const double y = points.empty() ? low.y : points.back().y;
            const bool highFirst = high.x != low.x ? high.x < low.x : high.y - y < y - low.y;
            points.push_back(highFirst ? high : low);
            if (low != high) {
                points.push_back(highFirst ? low : high);
            }
        }
        ASSERT_EQ(MetricChart::lines(series.buckets(), frame), expected) << "seed " << seed;
        ASSERT_EQ(MetricChart::range(series.buckets(), from, to), range) << "seed " << seed;
    }
}

}  // namespace
}  // namespace ferovane::testing
