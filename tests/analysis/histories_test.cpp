// What the histories keep, beside models that keep every sample.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <deque>
#include <functional>
#include <limits>
#include <vector>

#include "core/analysis/cpu_load_history.h"
#include "core/analysis/metric_histories.h"
#include "core/analysis/sustained_load.h"
#include "core/analysis/turbo_history.h"
#include "tests/analysis/unremarkable.h"
#include "tests/support/dice.h"

namespace ferovane {
namespace {

using testing::Dice;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::kNaN;
using testing::kStart;
using testing::unremarkable;
constexpr double kHuge = std::numeric_limits<double>::max();

struct Sample {
    Date date;
    double value = 0;
};

bool goesOn(std::optional<Date> last, Date date) {
    return last && date - *last > 0 && date - *last <= 15;
}

// Mostly a step further; at times a gap, the same moment, or a clock that was set back.
class Clock {
public:
    Clock(Dice& dice, double step) : dice_(dice), step_(step) {}
    Date next() {
        now_ += dice_.oneIn(30) ? dice_.pick({15, 15.001, 40, 0, -3, -70, 700}) : step_;
        return kStart + now_;
    }

private:
    Dice& dice_;
    double step_;
    double now_ = 0;
};

// ---- Series -----------------------------------------------------------------------------------

struct ModelBucket {
    std::vector<Sample> samples;
    bool afterGap = false;
};

// The buckets of a series of 20 s each over ten minutes.
void appendTo(std::deque<ModelBucket>& buckets, Date date, std::optional<double> value) {
    while (!buckets.empty() && buckets.front().samples.back().date < date - 600) {
        buckets.pop_front();
    }
    if (!value || !std::isfinite(*value)) {
        return;
    }
    while (!buckets.empty() && buckets.back().samples.back().date > date) {
        buckets.pop_back();
    }
    std::optional<Sample> last;
    if (!buckets.empty()) {
        last = buckets.back().samples.back();
    }
    if (last && last->date == date) {
        return;
    }
    const auto cell = [](Date moment) { return std::floor(moment.secondsSinceReference / 20); };
    const bool joined = last && goesOn(last->date, date);
    if (!joined || cell(buckets.back().samples.front().date) != cell(date)) {
        buckets.push_back({{}, !joined});
    }
    buckets.back().samples.push_back({date, *value});
}

TEST(MetricSeriesTest, KeepsTheLowestMeanAndHighestOfEveryBucket) {
    for (unsigned seed = 0; seed < 40; ++seed) {
        Dice dice(seed);
        Clock clock(dice, seed % 2 == 0 ? 1.25 : 9);
        MetricSeries series(20, 600);
        std::deque<ModelBucket> model;
        for (int i = 0; i < 1000; ++i) {
            const Date date = clock.next();
            const auto value =
                dice.maybe(10, dice.oneIn(20) ? dice.pick({kNaN, kHuge, -kHuge}) : dice.upTo(1000));
            series.append(date, value);
            appendTo(model, date, value);
            series.append(Date{kNaN}, 5);  // no moment at all
            ASSERT_EQ(series.buckets().size(), model.size()) << "seed " << seed << ", " << i;
            for (std::size_t at = 0; at < model.size(); ++at) {
                const MetricBucket& bucket = series.buckets()[at];
                const auto& samples = model[at].samples;
                const auto [low, high] = std::ranges::minmax(samples, {}, &Sample::value);
                double mean = 0;
                for (const Sample& sample : samples) {
                    mean += sample.value / static_cast<double>(samples.size());
                }
                ASSERT_EQ(std::tuple(bucket.first, bucket.last, bucket.minimum, bucket.maximum,
                                     bucket.samples, bucket.afterGap),
                          std::tuple(samples.front().date, samples.back().date, low.value,
                                     high.value, samples.size(), model[at].afterGap))
                    << "seed " << seed << ", sample " << i << ", bucket " << at;
                ASSERT_NEAR(bucket.mean, mean, 1e-9 * (high.value / 2 - low.value / 2) + 1e-9);
                ASSERT_TRUE(bucket.minimum <= bucket.mean && bucket.mean <= bucket.maximum);
            }
        }
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
    std::vector<std::string> told;
    for (const auto& [name, history] : histories.all()) {
        ASSERT_EQ(history.minutes().buckets().size(), 1) << name;
        EXPECT_EQ(history.hours().buckets()[0], history.minutes().buckets()[0]) << name;
        told.push_back(name + " " + std::to_string(int(history.hours().buckets()[0].mean)));
    }
    EXPECT_THAT(told,
                ElementsAre("batteryPercent 80", "cpuTemperature 50", "cpuUsage 20", "fan:0 2000",
                            "gpuTemperature 45", "memoryPercent 50", "sensor:PSTR 30",
                            "sensor:TC0P 50", "sensor:TG0P 45", "speedLimit 100"));
    histories.add(SystemTelemetry{kStart + 1, 80, -18, {}, {}, 4, 8});
    EXPECT_NE(histories.find(MetricHistories::kBatteryWatts), nullptr);
    EXPECT_EQ(histories.find("sensor:TC9C"), nullptr);

    // Five seconds and five minutes a bucket, half an hour and a day.
    for (int second = 5; second <= 26 * 3600; second += 5) {
        auto sample = unremarkable(second).snapshot;
        histories.add(sample);
        if (second == 24 * 3600) {
            EXPECT_NE(histories.find(MetricHistories::fan(0)), nullptr);
        }
    }
    EXPECT_EQ(histories.find(MetricHistories::fan(0)), nullptr);
    const MetricHistory* probe = histories.find(MetricHistories::sensor("TC0P"));
    ASSERT_NE(probe, nullptr);
    EXPECT_NEAR(double(probe->minutes().buckets().size()), 361, 1);
    EXPECT_NEAR(double(probe->hours().buckets().size()), 289, 1);

    for (int i = 0; i < 5000; ++i) {
        input.snapshot.sensors.push_back({"S" + std::to_string(i), "", 1});
    }
    histories.add(input.snapshot);
    EXPECT_EQ(histories.all().size(), MetricHistories::kMostMetrics);
}

// ---- Load -------------------------------------------------------------------------------------

std::optional<CpuLoadBand> bandOf(std::optional<double> usage) {
    if (!usage || !std::isfinite(*usage)) {
        return std::nullopt;
    }
    int band = 0;
    for (const double begins : {10, 35, 65, 90}) {
        band += *usage >= begins ? 1 : 0;
    }
    return static_cast<CpuLoadBand>(band);
}

constexpr std::initializer_list<double> kUsages{0,     9.99, 10,    34.99, 35,    49.99, 50,
                                                64.99, 65,   69.99, 70,    89.99, 90,    95,
                                                100,   80,   80,    80,    80,    80,    kNaN};

TEST(CpuLoadHistoryTest, CountsEveryUsageForTheTimeSinceTheSampleBefore) {
    EXPECT_EQ(title(CpuLoadBand::idle), "空闲");
    EXPECT_EQ(title(CpuLoadBand::saturated), "满负载");
    std::size_t most = 0;
    for (unsigned seed = 0; seed < 12; ++seed) {
        Dice dice(seed);
        const bool hasty = seed == 0;  // so many changes that the bound is met before the hour
        Clock steps(dice, 7);
        CpuLoadHistory history;
        std::vector<CpuLoadSpan> all;
        std::optional<Date> last;
        for (int i = 0; i < (hasty ? 4200 : 1500); ++i) {
            const Date date = hasty ? kStart + i * 0.5 : steps.next();
            const auto usage =
                hasty ? std::optional<double>(i % 2 * 95) : dice.maybe(20, dice.pick(kUsages));
            history.append(date, usage);
            if (last && date < *last) {
                all.clear();
            }
            if (const auto band = bandOf(usage); band && goesOn(last, date)) {
                const bool joins =
                    !all.empty() && all.back().to == *last && all.back().band == *band;
                joins ? void(all.back().to = date) : all.push_back({*last, date, *band});
            }
            last = date;
            if (i % 9 != 0) {
                continue;
            }
            std::vector<CpuLoadSpan> kept;
            for (CpuLoadSpan span : all) {
                span.from = std::max(span.from, date - 3600);
                if (span.from < span.to) {
                    kept.push_back(span);
                }
            }
            kept.erase(kept.begin(), kept.end() - std::min<std::ptrdiff_t>(std::ssize(kept), 3600));
            ASSERT_TRUE(std::ranges::equal(history.spans(), kept)) << "seed " << seed << ", " << i;
            for (int band = 0; band < 5; ++band) {
                double seconds = 0;
                for (const CpuLoadSpan& span : kept) {
                    seconds += int(span.band) == band ? span.to - span.from : 0;
                }
                ASSERT_EQ(history.seconds(CpuLoadBand(band)), seconds) << "seed " << seed;
            }
            most = std::max(most, kept.size());
        }
    }
    EXPECT_EQ(most, 3600);
}

// Appends a usage a second and tells when a period was going on: the first and the last second.
struct Observed {
    int first = -1, last = -1;
};
Observed observe(SustainedLoad& load, int seconds, const std::function<double(int)>& usage) {
    Observed seen;
    for (int second = 0; second <= seconds; ++second) {
        load.append(kStart + second, second == 0 ? std::nullopt : std::optional(usage(second)));
        if (load.current()) {
            seen.first = seen.first < 0 ? second : seen.first;
            seen.last = second;
        }
    }
    return seen;
}

TEST(SustainedLoadTest, BeginsAfter30BusySecondsAndEndsAfter15CalmOnes) {
    {
        SustainedLoad load;
        EXPECT_EQ(observe(load, 29, [](int) { return 70; }).first, -1);
        load.append(kStart + 30, 80);
        ASSERT_TRUE(load.current());
        EXPECT_EQ(load.current()->from, kStart) << "the first usage tells of the second before it";
        EXPECT_EQ(load.current()->seconds(), 30);
        EXPECT_NEAR(load.current()->mean, (29 * 70 + 80) / 30.0, 1e-9);
        EXPECT_EQ(load.current()->peak, 80);
    }
    {
        SustainedLoad load;
        EXPECT_EQ(observe(load, 60, [](int) { return 69.99; }).first, -1);
    }
    {
        SustainedLoad load;  // dips of 5 s do not count, one of 6 s does
        EXPECT_EQ(observe(load, 60, [](int s) { return s % 10 < 5 ? 40 : 80; }).first, 35);
        EXPECT_EQ(observe(load, 60, [](int s) { return s % 10 < 6 ? 40 : 80; }).first, -1);
    }
    {
        SustainedLoad load;  // goes on through 49 % for less than 15 s and through 50 % for ever
        const auto seen = observe(load, 200, [](int s) { return s < 40 ? 90 : s < 100 ? 50 : 49; });
        EXPECT_EQ(seen.first, 30);
        EXPECT_EQ(seen.last, 113);
        ASSERT_EQ(load.ended().size(), 1);
        EXPECT_EQ(load.ended()[0].to, kStart + 99) << "the calm at its end is no part of it";
    }
}

TEST(SustainedLoadTest, EndsAtAGap) {
    SustainedLoad load;
    observe(load, 40, [](int) { return 90; });
    load.append(kStart + 55.1, 90);
    EXPECT_EQ(load.current(), std::nullopt);
    ASSERT_EQ(load.ended().size(), 1);
    EXPECT_EQ(load.ended()[0].to, kStart + 40);
    load.append(kStart + 56, 90);
    load.append(kStart + 57, kNaN);
    for (int second = 58; second < 87; ++second) {
        load.append(kStart + second, 90);
        EXPECT_EQ(load.current(), std::nullopt);
    }
    load.append(kStart + 87, 90);
    EXPECT_EQ(load.current()->from, kStart + 57);
}

constexpr auto kLoaded = TurboState::disabledDriverLoaded;
constexpr auto kNotLoaded = TurboState::driverNotLoaded;

TEST(TurboHistoryTest, ComparesTheMinutesAroundAChange) {
    TurboHistory history;
    for (int second = 0; second <= 300; ++second) {
        const bool loaded = second >= 100;
        // Far from the change the machine did something else.
        const double load = second < 40 || second > 160 ? 0 : loaded ? 30 : 60;
        history.append(kStart + second, loaded ? kLoaded : kNotLoaded, load, loaded ? 60 : kNaN);
    }
    ASSERT_EQ(history.periods().size(), 2);
    EXPECT_EQ(history.periods()[0].to, kStart + 99);
    EXPECT_EQ(history.periods()[1].state, kLoaded);
    EXPECT_EQ(history.periods()[1].from, kStart + 100);
    EXPECT_EQ(history.periods()[1].temperature->samples, 201);
    ASSERT_EQ(history.changes().size(), 1);
    const TurboChange& change = history.changes()[0];
    EXPECT_EQ(change.date, kStart + 100);
    EXPECT_EQ(change.loadBefore, (TurboMeasure{60, 60, 60}));
    EXPECT_EQ(change.loadAfter, (TurboMeasure{30, 30, 61}));
    EXPECT_EQ(change.temperatureBefore, std::nullopt);
    EXPECT_EQ(change.temperatureAfter->mean, 60);
}

TEST(TurboHistoryTest, CallsOnlyWhatItSawAChange) {
    TurboHistory history;
    history.append(kStart, kNotLoaded, 10, 50);
    history.append(kStart + 1, TurboState::unknown, 10, 50);
    history.append(kStart + 2, kLoaded, 10, 50);
    history.append(kStart + 17.5, kNotLoaded, 10, 50);  // after a gap
    history.append(kStart + 18, TurboState::unsupported, 10, 50);
    history.append(kStart + 19, kNotLoaded, 10, 50);
    EXPECT_EQ(history.periods().size(), 4);
    EXPECT_THAT(history.changes(), IsEmpty());

    // A second change within the minute: neither side reaches over the other.
    history.append(kStart + 20, kLoaded, 20, 50);
    history.append(kStart + 21, kNotLoaded, 30, 50);
    ASSERT_EQ(history.changes().size(), 2);
    EXPECT_EQ(history.changes()[0].loadAfter, (TurboMeasure{20, 20, 1}));
    EXPECT_EQ(history.changes()[1].loadBefore, (TurboMeasure{20, 20, 1}));

    for (int i = 22; i < 1000; ++i) {
        history.append(kStart + i, i % 2 ? kLoaded : kNotLoaded, 1, 1);
    }
    EXPECT_EQ(history.periods().size(), TurboHistory::kMostPeriods);
    EXPECT_EQ(history.changes().size(), TurboHistory::kMostChanges);
}

}  // namespace
}  // namespace ferovane
