#include "core/analysis/metric_chart.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>

#include "tests/analysis/unremarkable.h"
#include "tests/support/dice.h"

namespace ferovane {
namespace {

using testing::kInfinity;
using testing::kStart;

MetricBucket at(double seconds, double low, double high, bool afterGap = false) {
    return {kStart + seconds, kStart + seconds, low, (low + high) / 2, high, 1, afterGap};
}

TEST(MetricChartTest, DrawsLinesInAUnitSquareSplitAtGaps) {
    const std::vector<MetricBucket> buckets{at(-1, 0, 100), at(0, 20, 20),        at(25, 40, 40),
                                            at(50, 0, 100), at(75, 50, 50, true), at(100, 200, 300),
                                            at(101, 0, 0)};
    const ChartFrame frame{kStart, kStart + 100, 0, 100, 1000};
    const auto lines = MetricChart::lines(buckets, frame);
    ASSERT_EQ(lines.size(), 2);
    EXPECT_EQ(lines[0], (ChartLine{{0, 0.2}, {0.25, 0.4}, {0.5, 0}, {0.5, 1}}));
    EXPECT_EQ(lines[1], (ChartLine{{0.75, 0.5}, {1, 1}}));
    EXPECT_EQ(MetricChart::range(buckets, frame.from, frame.to), (ChartRange{0, 300}));
    EXPECT_EQ(MetricChart::range(buckets, kStart + 1, kStart + 2), std::nullopt);
    // Buckets that reach over a side are drawn at it: their peak may lie within.
    const std::vector<MetricBucket> astride{
        {kStart - 300, kStart + 1, 0, 10, 90, 300, true},
        {kStart + 2, kStart + 98, 20, 20, 20, 90, false},
        {kStart + 99, kStart + 400, 20, 20, 80, 300, false},
    };
    EXPECT_EQ(MetricChart::lines(astride, frame),
              (std::vector<ChartLine>{{{0, 0}, {0, 0.9}, {0.5, 0.2}, {1, 0.2}, {1, 0.8}}}));
    EXPECT_EQ(MetricChart::range(astride, frame.from, frame.to), (ChartRange{0, 90}));
    // The bucket that begins after the gap lies outside: the gap remains.
    EXPECT_EQ(MetricChart::lines(std::vector{at(0, 1, 1), at(200, 1, 1, true), at(50, 1, 1)}, frame)
                  .size(),
              2);
}

TEST(MetricChartTest, ShowsNothingWithoutExtentAndAFlatLineWithoutHeight) {
    const std::vector<MetricBucket> buckets{at(0, 7, 7), at(50, 7, 7)};
    for (const ChartFrame& frame :
         {ChartFrame{kStart, kStart, 0, 10, 100}, ChartFrame{kStart + 100, kStart, 0, 10, 100},
          ChartFrame{kStart, kStart + 100, 0, 10, 0},
          ChartFrame{Date{-kInfinity}, kStart, 0, 10, 9},
          ChartFrame{kStart, Date{kInfinity}, 0, 10, 9}}) {
        EXPECT_TRUE(MetricChart::lines(buckets, frame).empty());
    }
    const auto flat = MetricChart::lines(buckets, {kStart, kStart + 100, 7, 7, 100});
    EXPECT_EQ(flat, (std::vector<ChartLine>{{{0, 0.5}, {0.5, 0.5}}}));
    EXPECT_EQ(MetricChart::lines(buckets, {kStart, kStart + 100, -kInfinity, 7, 100}), flat);
    const double huge = 1.7e308;
    const auto tall =
        MetricChart::lines(std::vector{at(0, -huge, huge)}, {kStart, kStart + 1, -huge, huge, 1});
    EXPECT_EQ(tall, (std::vector<ChartLine>{{{0, 0}, {0, 1}}}));
}

// At every width: each column of pixels reaches as high and as low as its samples did.
TEST(MetricChartTest, NeverLosesASpike) {
    for (unsigned seed = 0; seed < 60; ++seed) {
        std::mt19937 random(seed);
        MetricSeries series(5, 7200);
        std::vector<std::pair<double, double>> spikes;  // seconds, value
        for (int second = 0; second < 3600; second += 1 + (random() % 200 == 0 ? 40 : 0)) {
            double value = 40 + static_cast<double>(random() % 10);
            if (random() % 300 == 0) {
                value = 60 + static_cast<double>(random() % 40);
                spikes.emplace_back(second, value);
            }
            series.append(kStart + second, value);
        }
        for (const int columns : {1, 2, 7, 100, 719, 4000}) {
            // All of it, and a part whose sides cut buckets.
            const int from = columns % 2 == 0 ? 0 : 1003;
            const int to = columns % 2 == 0 ? 3600 : 2501;
            const ChartFrame frame{kStart + from, kStart + to, 0, 100, columns};
            const auto lines = MetricChart::lines(series.buckets(), frame);
            std::size_t points = 0;
            double previous = 0;
            for (const ChartLine& line : lines) {
                points += line.size();
                for (const ChartPoint& point : line) {
                    EXPECT_GE(point.x, previous);
                    previous = point.x;
                    EXPECT_TRUE(point.x <= 1 && point.y >= 0 && point.y <= 1);
                }
            }
            EXPECT_LE(points, 2 * (static_cast<std::size_t>(columns) + lines.size()));
            for (const auto& [second, value] : spikes) {
                if (second < from || second > to) {
                    continue;
                }
                const double x = (second - from) / (to - from);
                const double reach = 5.0 / (to - from) + 1.0 / columns;  // a bucket and a column
                const bool shown = std::ranges::any_of(lines, [&](const ChartLine& line) {
                    return std::ranges::any_of(line, [&](const ChartPoint& point) {
                        return std::abs(point.x - x) <= reach && point.y >= value / 100 - 1e-12;
                    });
                });
                EXPECT_TRUE(shown) << "seed " << seed << ", width " << columns;
            }
            ASSERT_FALSE(HasFailure());
        }
    }
}

}  // namespace
}  // namespace ferovane
