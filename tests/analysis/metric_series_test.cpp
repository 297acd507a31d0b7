#include "core/analysis/metric_series.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <random>

#include "core/analysis/metric_histories.h"
#include "tests/analysis/unremarkable.h"

namespace ferovane {
namespace {

using testing::kStart;
using testing::unremarkable;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kHuge = std::numeric_limits<double>::max();

MetricSeries fiveSecondsForAMinute() {
    return {5, 60};
}

TEST(MetricSeriesTest, KeepsTheLowestMeanAndHighestValueOfEachBucket) {
    auto series = fiveSecondsForAMinute();
    const double values[] = {4, 1, 9, 2, 4, 7};
    for (int second = 0; second < 6; ++second) {
        series.append(kStart + second, values[second]);
    }
    ASSERT_EQ(series.buckets().size(), 2);
    EXPECT_EQ(series.buckets()[0], (MetricBucket{kStart, kStart + 4, 1, 4, 9, 5, true}));
    EXPECT_EQ(series.buckets()[1], (MetricBucket{kStart + 5, kStart + 5, 7, 7, 7, 1, false}));
    series.append(kStart + 6, -kHuge);
    series.append(kStart + 7, kHuge);
    EXPECT_NEAR(series.buckets()[1].mean / kHuge, 0, 1e-9);

    series.append(kStart + 64, 1);
    EXPECT_EQ(series.buckets().front().first, kStart) << "its last sample is a minute old";
    series.append(kStart + 64.1, 1);
    EXPECT_EQ(series.buckets().front().first, kStart + 5);
}

TEST(MetricSeriesTest, KeepsAGapAsAGap) {
    const struct {
        double pause;
        bool gap;
    } cases[] = {{1, false}, {15, false}, {15.001, true}, {50, true}};
    for (const auto& [pause, gap] : cases) {
        MetricSeries series(300, 3600);
        series.append(kStart, 1);
        series.append(kStart + pause / 2, kNaN);
        series.append(kStart + pause / 2, std::nullopt);
        series.append(kStart + pause, 2);
        EXPECT_EQ(series.buckets().back().afterGap, gap || series.buckets().size() == 1) << pause;
        EXPECT_EQ(series.buckets().size(), gap ? 2 : 1) << pause << ": also within one bucket";
    }
}

TEST(MetricSeriesTest, FollowsAClockThatIsSetBack) {
    auto series = fiveSecondsForAMinute();
    for (int second = 0; second < 30; ++second) {
        series.append(kStart + second, second);
    }
    series.append(kStart + 29, 99);
    EXPECT_EQ(series.buckets().back().maximum, 29) << "one value per moment";
    series.append(kStart + 12, 50);
    ASSERT_EQ(series.buckets().size(), 3);
    EXPECT_EQ(series.buckets()[1].last, kStart + 9);
    EXPECT_EQ(series.buckets()[2].maximum, 50);
    series.append(Date{kNaN}, 1);
    EXPECT_EQ(series.buckets().size(), 3);
}

// Against a plain list of every sample, with pauses, lost values and a bound on the memory.
TEST(MetricSeriesTest, AgreesWithAListOfAllSamples) {
    for (unsigned seed = 0; seed < 40; ++seed) {
        std::mt19937 random(seed);
        MetricSeries series(20, 600);
        std::vector<std::pair<Date, double>> samples;
        Date date = kStart;
        for (int i = 0; i < 3000; ++i) {
            date = date + (random() % 40 == 0 ? static_cast<double>(random() % 30) : 1) + 0.25;
            const double value = static_cast<double>(random() % 1000);
            const bool lost = random() % 10 == 0;
            series.append(date, lost ? std::nullopt : std::optional(value));
            if (!lost) {
                samples.emplace_back(date, value);
            }
        }
        std::size_t next = 0;
        while (samples[next].first < series.buckets().front().first) {
            ++next;
        }
        EXPECT_LE(date - samples[next].first, 620);
        for (const MetricBucket& bucket : series.buckets()) {
            const double pause = next == 0 ? 100 : samples[next].first - samples[next - 1].first;
            EXPECT_EQ(bucket.afterGap, pause > 15);
            double low = kHuge, high = -kHuge, sum = 0;
            for (std::uint32_t i = 0; i < bucket.samples; ++i, ++next) {
                low = std::min(low, samples[next].second);
                high = std::max(high, samples[next].second);
                sum += samples[next].second;
            }
            EXPECT_EQ(bucket.last, samples[next - 1].first);
            EXPECT_EQ(bucket.minimum, low);
            EXPECT_EQ(bucket.maximum, high);
            EXPECT_NEAR(bucket.mean, sum / bucket.samples, 1e-9);
        }
        EXPECT_EQ(next, samples.size()) << "seed " << seed;
        EXPECT_LE(series.buckets().size(), 600 / 20 + 600 / 15 + 2);
    }
}

TEST(MetricHistoriesTest, RecordsEveryMetricSensorAndFanUntilADayHasPassed) {
    MetricHistories histories;
    auto input = unremarkable(0);
    input.snapshot.fans = {{0, 2000, 1200, 6000, false, true},
                           {1, std::nullopt, {}, {}, {}, false}};
    input.snapshot.additionalSensors = {{"PSTR", "整机功耗", HardwareSensorKind::power, 30}};
    histories.add(input.snapshot);
    histories.add(SystemTelemetry{kStart, 80, kNaN, {}, {}, 4, 8});
    std::vector<std::string> names;
    for (const auto& [name, history] : histories.all()) {
        names.push_back(name);
        EXPECT_EQ(history.minutes().buckets().size(), 1) << name;
        EXPECT_EQ(history.hours().buckets().size(), 1) << name;
    }
    EXPECT_EQ(names,
              (std::vector<std::string>{"batteryPercent", "cpuTemperature", "cpuUsage", "fan:0",
                                        "gpuTemperature", "memoryPercent", "sensor:PSTR",
                                        "sensor:TC0P", "sensor:TG0P", "speedLimit"}));
    EXPECT_EQ(histories.find(MetricHistories::fan(0))->hours().buckets()[0].mean, 2000);
    EXPECT_EQ(histories.find("sensor:TC9C"), nullptr);

    for (int hour = 1; hour <= 26; ++hour) {
        histories.add(unremarkable(hour * 3600.0).snapshot);
    }
    EXPECT_EQ(histories.find(MetricHistories::fan(0)), nullptr);
    EXPECT_NE(histories.find(MetricHistories::sensor("TC0P")), nullptr);

    for (int i = 0; i < 5000; ++i) {
        input.snapshot.sensors.push_back({"S" + std::to_string(i), "", 1});
    }
    histories.add(input.snapshot);
    EXPECT_EQ(histories.all().size(), MetricHistories::kMostMetrics);
}

}  // namespace
}  // namespace ferovane
