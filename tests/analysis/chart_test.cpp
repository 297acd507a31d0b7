// What a view draws of the histories, beside models that look at everything.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "core/analysis/metric_chart.h"
#include "core/analysis/metric_histories.h"
#include "tests/analysis/observation.h"

namespace ferovane::testing {
namespace {

TEST(MetricHistoriesTest, NamesWhatASampleSaysOfEveryMetric) {
    Snapshot snapshot = unremarkable(0).snapshot;
    snapshot.thermalState = 3;
    snapshot.fans = {{0, 2000, 1200, 6000, false, true}, {1, std::nullopt, {}, {}, {}, false}};
    using enum HardwareSensorKind;
    snapshot.additionalSensors = {{"F0Ac", "风扇 1", fan, 2001}, {"F1Ac", "风扇 2", fan, 999},
                                  {"F2Ac", "风扇 3", fan, 3},    {"PSTR", "功耗", power, 30},
                                  {"VD0R", "电压", voltage, 12}, {"ID0R", "电流", current, 2}};
    std::string told;
    const auto tell = [&](const std::vector<MetricReading>& readings) {
        for (const auto& [id, kind, label, value] : readings) {
            told += id + " " + std::string(rawValue(kind)) + " " + label + " " +
                    (value ? std::to_string(int(*value)) : "?") + std::string(unit(kind)) + "\n";
        }
    };
    tell(MetricHistories::readings(snapshot));
    tell(MetricHistories::readings(SystemTelemetry{kStart, 80, -18, {}, {}, 4, 8}));
    EXPECT_EQ(told,
              "cpuUsage percent 处理器使用率 20%\ncpuTemperature temperature 处理器温度 50°C\n"
              "gpuTemperature temperature 图形处理器温度 45°C\n"
              "speedLimit percent 处理器速度上限 100%\nschedulerLimit percent 处理器调度上限 100%\n"
              "thermalState thermalState 热状态 3\nmemoryPressure memoryPressure 内存压力 1\n"
              "sensor:TC0P temperature CPU · TC0P 50°C\nsensor:TG0P temperature GPU · TG0P 45°C\n"
              "fan:0 fan 风扇 1 2000RPM\nfan:1 fan 风扇 2 999RPM\nfan:2 fan 风扇 3 3RPM\n"
              "sensor:PSTR power 功耗 30W\nsensor:VD0R voltage 电压 12V\n"
              "sensor:ID0R current 电流 2A\nbatteryPercent percent 电池电量 80%\n"
              "batteryWatts power 电池功率 -18W\nmemoryPercent percent 内存使用率 50%\n");
    snapshot.thermalState = 4;
    EXPECT_EQ(MetricHistories::readings(snapshot)[5].value, std::nullopt);
}

bool equal(const MetricHistory& one, const MetricHistory& other) {
    return std::ranges::equal(one.minutes().buckets(), other.minutes().buckets()) &&
           std::ranges::equal(one.hours().buckets(), other.hours().buckets());
}

// Each beside a history of its own that hears of every sample of its source.
TEST(MetricHistoriesTest, KeepsEveryMetricUntilADayHasPassed) {
    MetricHistory day(15);
    for (int second = 0; second <= 26 * 3600; second += 5) {
        day.append(kStart + second, 1);
    }
    EXPECT_NEAR(double(day.minutes().buckets().size()), 361, 1);
    EXPECT_NEAR(double(day.hours().buckets().size()), 289, 1);
    for (unsigned seed = 0; seed < 10; ++seed) {
        Dice dice(seed);
        Clock clock(dice, dice.pick({1, 9, 25}));
        const double gap = dice.pick({15, 40});
        MetricHistories histories(gap);
        std::map<std::string, Metric> model;
        double later = 0;
        for (int i = 0; i < 300; ++i) {
            const Date date = clock.next() + (later += dice.oneIn(60) ? 50'000 : 0);
            const bool telemetry = dice.oneIn(3);
            std::vector<MetricReading> said;
            if (telemetry) {
                const SystemTelemetry told{date, dice.maybe(2, 5.0), {}, {}, {}, 4, 8};
                histories.add(told);
                said = MetricHistories::readings(told);
            } else {
                Snapshot told;
                told.date = date;
                told.cpuUsage = dice.oneIn(2) ? kNaN : 7;
                for (const char* key : {"TC0P", "TG0P", "Ts0P"}) {
                    if (dice.oneIn(3)) {
                        told.sensors.push_back(
                            {key, std::to_string(dice.upTo(3)), dice.pick({40, kNaN})});
                    }
                }
                histories.add(told);
                said = MetricHistories::readings(told);
            }
            std::erase_if(said, [](const auto& it) { return !known(it.value); });
            for (const auto& [id, kind, label, value] : said) {
                model.try_emplace(id, Metric{kind, label, MetricHistory(gap)});
            }
            for (auto& [id, metric] : model) {
                const auto it = std::ranges::find(said, id, &MetricReading::id);
                metric.label = it == said.end() ? metric.label : it->label;
                if ((id[0] == 'b' || id == "memoryPercent") == telemetry) {
                    metric.history.append(date, it == said.end() ? std::nullopt : it->value);
                }
            }
            std::erase_if(
                model, [](const auto& it) { return it.second.history.hours().buckets().empty(); });
            ASSERT_EQ(histories.all().size(), model.size()) << "seed " << seed << ", " << i;
            for (const auto& [id, metric] : model) {
                const Metric* told = histories.find(id);
                ASSERT_TRUE(told && told->kind == metric.kind && told->label == metric.label &&
                            equal(told->history, metric.history))
                    << "seed " << seed << ", " << i << ": " << id;
            }
        }
    }
    Snapshot snapshot = unremarkable(0).snapshot;
    for (int i = 0; i < 5000; ++i) {
        snapshot.sensors.push_back({"S" + std::to_string(i), "", 1});
    }
    MetricHistories histories;
    const MetricBucket one{kStart, kStart, 1, 1, 1, 1, true}, none{};
    EXPECT_FALSE(histories.restore("S1", MetricKind::percent, "", {&one, 1}, {&none, 1}));
    EXPECT_TRUE(histories.restore("S1", MetricKind::percent, "", {&one, 1}, {&one, 1}));
    EXPECT_FALSE(histories.restore("S1", MetricKind::percent, "", {&one, 1}, {&one, 1}));
    histories.add(snapshot);
    EXPECT_EQ(histories.all().size(), MetricHistories::kMostMetrics);
    EXPECT_FALSE(histories.restore("S2", MetricKind::percent, "", {&one, 1}, {&one, 1}));
}

// One column of one stretch, with all buckets that fall into it.
struct Drawn {
    std::size_t stretch;
    double column;
    MetricBucket bucket;
    double sum = 0;
};

std::vector<Drawn> draw(const ChartFrame& frame, std::span<const MetricBucket> buckets) {
    std::vector<Drawn> all;
    bool broken = false;
    for (const MetricBucket& it : buckets) {
        broken = broken || it.afterGap;
        if (it.last < frame.from || it.first > frame.to) {
            continue;
        }
        const double x = (it.middle() - frame.from) / (frame.to - frame.from);
        const double column = std::clamp(std::floor(x * frame.columns), 0., frame.columns - 1.);
        if (all.empty() || broken || all.back().column != column) {
            all.push_back({all.empty() ? 0 : all.back().stretch + (broken ? 1 : 0), column, it});
            all.back().bucket.samples = 0;
        }
        auto& [stretch, number, bucket, sum] = all.back();
        bucket.last = it.last;
        bucket.minimum = std::min(bucket.minimum, it.minimum);
        bucket.maximum = std::max(bucket.maximum, it.maximum);
        bucket.samples += it.samples;
        sum += it.mean * it.samples;
        bucket.mean = sum / bucket.samples;
        broken = false;
    }
    return all;
}

// The column before or after a cursor: the nearer, in a gap only within half a column.
std::optional<MetricBucket> under(Date cursor, double halfColumn, const std::vector<Drawn>& all) {
    // Where a clock was set back, two may end at the same moment.
    const auto next = std::ranges::find_if(all, [&](auto& it) { return it.bucket.last >= cursor; });
    const double ahead = next == all.end() ? kInfinity : std::max(next->bucket.first - cursor, 0.0);
    const double behind = next == all.begin() ? kInfinity : cursor - (next - 1)->bucket.last;
    const bool joined =
        next != all.end() && next != all.begin() && (next - 1)->stretch == next->stretch;
    if (!joined && ahead > 0 && std::min(ahead, behind) > halfColumn) {
        return std::nullopt;
    }
    return behind > ahead ? next->bucket : std::ranges::find_if(all, [&](auto& it) {
                                               return it.bucket.last == (next - 1)->bucket.last;
                                           })->bucket;
}

TEST(MetricChartTest, DrawsTheMeanAndTheExtremesOfEveryColumn) {
    int found = 0, missed = 0;
    for (unsigned seed = 0; seed < 600; ++seed) {
        SCOPED_TRACE(seed);
        Dice dice(seed);
        Clock clock(dice, dice.pick({1, 4, 9}));
        MetricSeries series(5, 7200);
        for (int i = 0; i < 300; ++i) {
            series.append(clock.next(), dice.oneIn(20) ? dice.upTo(100) : 40 + dice.upTo(3));
        }
        const Date from = dice.oneOf(series.buckets()).first - dice.upTo(1000);
        const Date to = from + 1 + dice.upTo(2000);
        const ChartFrame frame{from, to, 20, 60, dice.oneIn(2) ? 1 + dice.upTo(10) : 500};
        auto drawn = draw(frame, series.buckets());
        const auto stretches = MetricChart::stretches(series.buckets(), frame);
        std::optional<ChartRange> range;
        auto expected = drawn.begin();
        for (std::size_t i = 0; i < stretches.size(); ++i) {
            for (const ChartColumn& told : stretches[i]) {
                ASSERT_TRUE(expected != drawn.end() && expected->stretch == i);
                MetricBucket& all = expected++->bucket;
                ASSERT_NEAR(told.bucket.mean, all.mean, 1e-9);
                all.mean = told.bucket.mean;
                const auto height = [](double y) { return std::clamp((y - 20) / 40, 0.0, 1.0); };
                const double x = std::clamp((all.middle() - from) / (to - from), 0.0, 1.0);
                ASSERT_EQ(told, (ChartColumn{all, x, height(all.minimum), height(all.mean),
                                             height(all.maximum)}));
                range = {std::min(range ? range->low : 999, all.minimum),
                         std::max(range ? range->high : 0, all.maximum)};
            }
        }
        ASSERT_TRUE(expected == drawn.end());
        ASSERT_EQ(MetricChart::range(series.buckets(), from, to), range);
        for (int i = 0; i < 100; ++i) {
            const double x = dice.upTo(4000) / 4000.;
            const auto told = MetricChart::bucketAt(stretches, frame, x);
            ASSERT_EQ(told, under(from + x * (to - from), (to - from) / frame.columns / 2, drawn));
            ++(told ? found : missed);
        }
        ASSERT_FALSE(MetricChart::bucketAt(stretches, frame, dice.pick({-1e-9, 1.01, kNaN})));
    }
    EXPECT_GT(std::min(found, missed), 5000);
}

TEST(MetricChartTest, ShowsNothingWithoutExtentAndAFlatLineWithoutHeight) {
    const MetricBucket flat{kStart, kStart, 7, 7, 7, 1, false};
    const MetricBucket tall{kStart, kStart, -1.7e308, 0, 1.7e308, 1, false};
    const Date to = kStart + 100, never{-kInfinity}, ever{kInfinity};
    const struct {
        MetricBucket bucket;
        ChartFrame frame;
        std::vector<double> heights;
    } cases[] = {
        {flat, {kStart, kStart, 0, 10, 100}, {}},
        {flat, {to, kStart, 0, 10, 100}, {}},
        {flat, {kStart, to, 0, 10, 0}, {}},
        {flat, {never, kStart, 0, 10, 9}, {}},
        {flat, {kStart, ever, 0, 10, 9}, {}},
        {flat, {kStart, to, 7, 7, 1}, {0.5, 0.5, 0.5}},
        {flat, {kStart, to, -kInfinity, 7, 100}, {0.5, 0.5, 0.5}},
        {flat, {kStart, to, 0, 28, 100}, {0.25, 0.25, 0.25}},
        {tall, {kStart, to, -1.7e308, 1.7e308, 1}, {0, 0.5, 1}},
    };
    for (const auto& [bucket, frame, heights] : cases) {
        std::vector<double> told;
        for (const auto& stretch : MetricChart::stretches({&bucket, 1}, frame)) {
            told = {stretch.at(0).low, stretch.at(0).mean, stretch.at(0).high};
        }
        EXPECT_EQ(told, heights) << &frame - &cases[0].frame;
    }
}

TEST(MetricChartTest, StacksTheBandsOfEveryFiveMinutes) {
    const std::deque<CpuLoadStretch> stretches{{kStart - 300, {300}},
                                               {kStart, {30, 60, 0, 90, 120}},
                                               {kStart + 600, {150, 200}},
                                               {kStart + 900, {0, 0, 0, 0, 15}},
                                               {kStart + 1200, {300}}};
    EXPECT_EQ(MetricChart::loadBars(stretches, kStart + 150, kStart + 1200),
              (std::vector<ChartBar>{{0, 150 / 1050., {0.1, 0.3, 0.3, 0.6, 1}},
                                     {450 / 1050., 750 / 1050., {0.5, 1, 1, 1, 1}},
                                     {750 / 1050., 1, {0, 0, 0, 0, 0.05}}}));
    EXPECT_TRUE(MetricChart::loadBars(stretches, kStart, kStart).empty());
}

using Ticks = std::vector<ChartTick>;

// Those of the smallest step that leaves so few.
template <class Steps, class TicksOf>
Ticks fewEnough(int most, const Steps& steps, const TicksOf& ticksOf) {
    for (const auto step : steps) {
        if (Ticks ticks = ticksOf(step); int(ticks.size()) <= most) {
            return ticks;
        }
    }
    return {};
}

std::string text(const char* format, int first, auto second) {
    char text[40];
    std::snprintf(text, sizeof text, format, first, second);
    return text;
}

// In ten thousandths, which are integers.
TEST(MetricChartTest, MarksRoundValues) {
    std::vector<std::int64_t> steps;
    for (std::int64_t unit = 1; unit < 1'000'000'000; unit *= 10) {
        steps.insert(steps.end(), {unit, 2 * unit, 5 * unit});
    }
    for (unsigned seed = 0; seed < 1000; ++seed) {
        Dice dice(seed);
        const int most = 1 + dice.upTo(20), scale = int(dice.pick({100, 1000, 300'000}));
        const std::int64_t low = 100 * (dice.upTo(2 * scale) - scale);
        const std::int64_t high = low + 100 + 100 * dice.upTo(dice.oneIn(2) ? 20 : scale);
        const Ticks expected = fewEnough(most, steps, [&](std::int64_t step) {
            const int places = std::max(4 - int(std::log10(step)), 0);
            Ticks ticks;
            std::int64_t it = low + (-low % step + step) % step;
            for (; it <= high && int(ticks.size()) <= most; it += step) {
                ticks.push_back({double(it - low) / double(high - low),
                                 text("%.*f", places, double(it) / 1e4)});
            }
            return ticks;
        });
        Ticks told = MetricChart::valueTicks({{}, {}, double(low) / 1e4, double(high) / 1e4}, most);
        for (std::size_t i = 0; i < std::min(told.size(), expected.size()); ++i) {
            ASSERT_NEAR(told[i].at, expected[i].at, 1e-9);
            told[i].at = expected[i].at;
        }
        ASSERT_EQ(told, expected) << "seed " << seed;
    }
}

// Minute by minute, through days on which the clock is changed.
TEST(MetricChartTest, MarksRoundLocalTimes) {
    constexpr int kSteps[] = {1, 2, 5, 10, 15, 30, 60, 120, 180, 360, 720, 1440};
    for (unsigned seed = 0; seed < 250; ++seed) {
        Dice dice(seed);
        const Date from = kStart + dice.upTo(100'000) * 0.5;
        const Date to = from + 60.0 * (1 + dice.upTo(dice.oneIn(2) ? 60 : 3000));
        const double before = dice.pick({0, 3600, 28800, -12600, 20700});
        const double after = before + dice.pick({0, 3600, -3600, 1800, -1800});
        const Date change{std::floor(from.secondsSinceReference / 60) * 60 + 60 * dice.upTo(1500)};
        const UtcOffset offset = [&](Date date) { return date < change ? before : after; };
        const int most = 1 + dice.upTo(12);
        const Ticks expected = fewEnough(most, kSteps, [&](int step) {
            Ticks ticks;
            Date it{std::ceil(from.secondsSinceReference / 60) * 60};
            for (; it <= to; it = it + 60) {
                const int minute = int((it + offset(it)).secondsSinceReference / 60) % 1440;
                if (minute % step == 0) {
                    ticks.push_back(
                        {(it - from) / (to - from), text("%02d:%02d", minute / 60, minute % 60)});
                }
            }
            return ticks;
        });
        ASSERT_EQ(MetricChart::timeTicks({from, to}, most, offset), expected) << "seed " << seed;
    }
}

TEST(MetricChartTest, MarksNothingThatCannotBeCounted) {
    const UtcOffset utc = [](Date) { return 0.0; }, unknown = [](Date) { return kNaN; };
    const ChartFrame day{{-90'000}, {1}, 0, 1}, frames[] = {{{0}, {0}, 7, 7},
                                                            {{60}, {0}, 8, 7},
                                                            {{kNaN}, {9}, kNaN, 7},
                                                            {{0}, {kInfinity}, 7, kInfinity},
                                                            {{-kInfinity}, {9}, -1.7e308, 1.7e308},
                                                            {{1e18}, {1e18 + 600}, 1e17, 1e17 + 16},
                                                            {{0}, {1e6}, 0, 5e-324}};
    for (const ChartFrame& frame : frames) {
        EXPECT_EQ(MetricChart::valueTicks(frame, 5), Ticks{}) << &frame - frames;
        EXPECT_EQ(MetricChart::timeTicks(frame, 5, utc), Ticks{}) << &frame - frames;
    }
    EXPECT_EQ(MetricChart::valueTicks(day, 0), Ticks{});
    EXPECT_EQ(MetricChart::timeTicks(day, 0, utc), Ticks{});
    EXPECT_EQ(MetricChart::timeTicks(day, 5, unknown), Ticks{});
    // Before the reference date.
    EXPECT_EQ(MetricChart::timeTicks(day, 2, utc),
              (Ticks{{3600 / 90001., "00:00"}, {90000 / 90001., "00:00"}}));
}

}  // namespace
}  // namespace ferovane::testing
