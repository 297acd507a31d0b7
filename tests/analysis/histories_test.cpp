// What the histories keep, beside models that keep every sample; what is judged of them.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <deque>
#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "core/analysis/cpu_load_history.h"
#include "core/analysis/metric_series.h"
#include "core/analysis/optimization_assessment.h"
#include "core/analysis/sustained_load.h"
#include "core/analysis/turbo_history.h"
#include "tests/analysis/observation.h"

namespace ferovane::testing {
namespace {

constexpr double kHuge = std::numeric_limits<double>::max();

// What a clock that was set back to `date` leaves: of what reaches past it the figures, up to then.
template <class Periods, class Period>
void setBack(Periods& all, Date Period::*from, Date Period::*to, Date date) {
    std::erase_if(all, [&](const Period& it) { return it.*from >= date; });
    for (Period& it : all) {
        it.*to = std::min(it.*to, date);
    }
}

// The buckets of a series of 20 s each over ten minutes.
struct SeriesModel {
    explicit SeriesModel(double longestGap) : time(longestGap), gap(longestGap) {}

    void append(Date date, std::optional<double> value) {
        const auto seen = time.see(date);
        if (!seen.counts) {
            return;
        }
        if (seen.setBack) {
            setBack(told, &MetricBucket::first, &MetricBucket::last, date);
        }
        unseen = unseen || !seen.goesOn;
        std::erase_if(told, [&](const MetricBucket& it) { return it.last < date - 600; });
        if (!known(value)) {
            return;
        }
        const auto cell = [](Date moment) { return std::floor(moment.secondsSinceReference / 20); };
        unseen = unseen || told.empty() || unbroken(told.back().last, date, gap) == 0;
        if (unseen || cell(told.back().first) != cell(date)) {
            told.push_back({date, date, *value, 0, *value, 0, unseen});
            sum = 0;
        }
        unseen = false;
        MetricBucket& it = told.back();
        it.last = date;
        it.minimum = std::min(it.minimum, *value);
        it.maximum = std::max(it.maximum, *value);
        sum += *value;
        it.mean = static_cast<double>(sum / ++it.samples);
    }

    TimeModel time;
    double gap;
    bool unseen = false;  // what lies between the last value and now
    std::vector<MetricBucket> told;
    long double sum = 0;  // of the last bucket
};

TEST(MetricSeriesTest, KeepsTheLowestMeanAndHighestOfEveryBucket) {
    for (unsigned seed = 0; seed < 30; ++seed) {
        Dice dice(seed);
        Clock clock(dice, seed % 2 == 0 ? 1.25 : 9);
        const double gap = dice.pick({15, 15, 75});
        MetricSeries series(20, 600, gap);
        SeriesModel model(gap);
        for (int i = 0; i < 1000; ++i) {
            const Date date = clock.next();
            const double value = dice.oneIn(20) ? dice.pick({kNaN, kHuge, -kHuge}) : dice.upTo(999);
            const auto given = dice.maybe(10, value);
            series.append(date, given);
            model.append(date, given);
            ASSERT_EQ(series.buckets().size(), model.told.size()) << "seed " << seed << ", " << i;
            for (std::size_t at = 0; at < model.told.size(); ++at) {
                MetricBucket bucket = series.buckets()[at];
                const MetricBucket& told = model.told[at];
                const double extent = told.maximum / 2 - told.minimum / 2;
                ASSERT_NEAR(bucket.mean, told.mean, 1e-9 * extent + 1e-9) << seed << ", " << i;
                ASSERT_TRUE(bucket.minimum <= bucket.mean && bucket.mean <= bucket.maximum);
                bucket.mean = told.mean;
                ASSERT_EQ(bucket, told) << "seed " << seed << ", sample " << i;
            }
        }
    }
}

// How often a load is told, and how many seconds apart.
struct Stretch {
    int samples;
    double load, step = 1;
};
using Stretches = std::vector<Stretch>;

// Appends them to a history; the first tells of a time before anything was observed.
Date follow(const Stretches& all, const std::function<void(Date, double)>& append) {
    Date date = kStart;
    append(date, 100);
    for (const Stretch& stretch : all) {
        for (int i = 0; i < stretch.samples; ++i) {
            date = date + stretch.step;
            append(date, stretch.load);
        }
    }
    return date;
}

TEST(CpuLoadHistoryTest, CountsEveryUsageForTheTimeSinceTheSampleBefore) {
    struct Span {
        double from, to;
        int band;
    };
    const std::pair<Stretches, std::vector<Span>> cases[] = {
        {{{1, 9.99}, {1, 10}, {1, 34.99}, {1, 35}}, {{0, 1, 0}, {1, 3, 1}, {3, 4, 2}}},
        {{{1, 64.99}, {1, 65}, {1, 89.99}, {1, 90}}, {{0, 1, 2}, {1, 3, 3}, {3, 4, 4}}},
        {{{1, 5, 15}, {1, 5, 15.5}, {1, 5}}, {{0, 15, 0}, {30.5, 31.5, 0}}},  // a gap
        {{{1, 5}, {1, kNaN}, {2, 5}}, {{0, 1, 0}, {2, 4, 0}}},
        {{{1, 5}, {1, 95, 0}, {2, 5}}, {{0, 3, 0}}},                   // twice the same moment
        {{{9, 5}, {1, 95, -3}, {2, 95}}, {{0, 6, 0}, {6, 8, 4}}},      // a clock that was set back
        {{{999, 5, 5}, {9, 95}}, {{1404, 4995, 0}, {4995, 5004, 4}}},  // more than an hour
        {{{1, 95, 15}, {240, 5, 15}}, {{15, 3615, 0}}},
    };
    for (const auto& [load, spans] : cases) {
        CpuLoadHistory history;
        follow(load, [&](Date date, double usage) { history.append(date, usage); });
        std::deque<CpuLoadSpan> expected;
        double seconds[5] = {};
        for (const auto& [from, to, band] : spans) {
            expected.push_back({kStart + from, kStart + to, CpuLoadBand(band)});
            seconds[band] += to - from;
        }
        EXPECT_EQ(history.spans(), expected) << &load - &cases[0].first;
        for (int band = 0; band < 5; ++band) {
            EXPECT_EQ(history.seconds(CpuLoadBand(band)), seconds[band]);
        }
    }
    CpuLoadHistory changing;
    for (int i = 0; i < 5000; ++i) {
        changing.append(kStart + i * 0.5, i % 2 * 95);
    }
    EXPECT_EQ(changing.spans().size(), CpuLoadHistory::kMostSpans);
    EXPECT_EQ(changing.spans().back().to, kStart + 2499.5);
    std::string titles;
    for (int band = 0; band < 5; ++band) {
        titles.append(title(CpuLoadBand(band))).append(" ");
    }
    EXPECT_EQ(titles, "空闲 轻度负载 中度负载 高负载 满负载 ");
}

TEST(SustainedLoadTest, BeginsAfter30BusySecondsAndEndsAfter15CalmOnes) {
    const struct {
        Stretches load;
        double from = 0, to = 0, mean = 0, peak = 0;  // of the one period
        double first = 0, last = 0;                   // when it was told to go on
    } cases[] = {
        {{{29, 70}}},
        {{{99, 69.99}}},
        {{{20, 80}, {6, 40}, {29, 80}}},  // too long a dip
        {{{29, 70}, {1, 100}}, 0, 30, 71, 100, 30, 30},
        {{{9, 40}, {30, 80}}, 9, 39, 80, 80, 39, 39},
        {{{20, 70}, {5, 10}, {5, 70}}, 0, 30, 60, 70, 30, 30},
        {{{30, 80}, {9, 50}, {1, 49}}, 0, 39, 2850 / 39., 80, 30, 40},
        {{{40, 80}, {40, 50}, {99, 49}}, 0, 80, 65, 80, 30, 94},
        {{{40, 80}, {14, 40}, {2, 80}}, 0, 56, 70, 80, 30, 56},
        {{{40, 80}, {1, 80, 15}}, 0, 55, 80, 80, 30, 55},
        {{{40, 80}, {1, 80, 16}, {29, 80}}, 0, 40, 80, 80, 30, 40},  // a gap
        {{{40, 80}, {1, kNaN}, {29, 80}}, 0, 40, 80, 80, 30, 40},
    };
    for (const auto& it : cases) {
        SCOPED_TRACE(&it - cases);
        SustainedLoad load;
        double first = 0, last = 0;
        const Date end = follow(it.load, [&](Date date, double usage) {
            load.append(date, usage);
            last = load.current() ? date - kStart : last;
            first = first == 0 ? last : first;
        });
        const auto going = load.current();
        load.append(end + 1, std::nullopt);
        EXPECT_TRUE(!going || load.ended().back() == going);
        EXPECT_EQ(std::pair(first, last), std::pair(it.first, it.last));
        ASSERT_EQ(load.ended().size(), it.to > 0 ? 1 : 0);
        for (SustainedLoadPeriod told : load.ended()) {
            EXPECT_NEAR(told.mean, it.mean, 1e-9);
            told.mean = it.mean;
            EXPECT_EQ(told,
                      (SustainedLoadPeriod{kStart + it.from, kStart + it.to, it.mean, it.peak}));
        }
    }
    SustainedLoad often;
    for (int i = 0; i < 400; ++i) {
        often.append(kStart + i * 15, i % 3 == 0 ? std::nullopt : std::optional(90.0));
    }
    EXPECT_EQ(often.ended().size(), SustainedLoad::kMostPeriods);
}

TEST(TurboHistoryTest, ComparesTheMinutesAroundAChange) {
    constexpr auto kLoaded = TurboState::disabledDriverLoaded;
    constexpr auto kNotLoaded = TurboState::driverNotLoaded;
    TurboHistory history;
    for (int second = 0; second <= 300; ++second) {
        const bool loaded = second >= 100;
        // Far from the change the machine did something else.
        const double load = second < 40 || second > 160 ? 0 : loaded ? 30 : 60 + second % 2;
        history.append(kStart + second, loaded ? kLoaded : kNotLoaded, load, loaded ? 60 : kNaN);
    }
    const TurboPeriod loaded{kLoaded, kStart + 100, kStart + 300, {}, TurboMeasure{60, 60, 201}};
    ASSERT_EQ(history.periods().size(), 2);
    EXPECT_EQ(history.periods()[0].to, kStart + 99);
    TurboPeriod told = history.periods()[1];
    EXPECT_NEAR(std::exchange(told.load, {})->mean, 61 * 30 / 201., 1e-9);
    EXPECT_EQ(told, loaded);
    TurboChange change = history.changes().at(0);
    EXPECT_NEAR(std::exchange(change.loadBefore->mean, 0), 60.5, 1e-9);
    EXPECT_EQ(change, (TurboChange{kStart + 100,
                                   kLoaded,
                                   TurboMeasure{0, 61, 60},
                                   TurboMeasure{30, 30, 61},
                                   {},
                                   TurboMeasure{60, 60, 61}}));

    // Nobody saw the driver change while its state was not known, or in a gap.
    history = TurboHistory();
    for (const auto& [second, state] : {std::pair(0.0, kNotLoaded),
                                        {1, TurboState::unknown},
                                        {2, kLoaded},
                                        {17.5, kNotLoaded},
                                        {18, TurboState::unsupported},
                                        {19, kNotLoaded}}) {
        history.append(kStart + second, state, 10, 50);
    }
    EXPECT_EQ(std::pair(history.periods().size(), history.changes().size()), std::pair(4UL, 0UL));
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

// Samples from the first to the last second; without any, a change at the first.
struct Watched {
    int first, last;
    double celsius = 65, load = 40, step = 1;
};
using Timeline = std::vector<Watched>;
constexpr Watched changeAt(int second) {
    return {second, second - 1};
}

OptimizationAssessment observed(const Timeline& all) {
    OptimizationAssessment assessment;
    for (const Watched& it : all) {
        if (it.last < it.first) {
            assessment.noteChange(kStart + it.first);
        }
        for (double second = it.first; second <= it.last; second += it.step) {
            const auto rpm = it.celsius > 80 ? std::nullopt : std::optional(30 * it.celsius);
            assessment.append({kStart + second, it.load, it.celsius, rpm, it.load / 2});
        }
    }
    return assessment;
}

TEST(OptimizationAssessmentTest, ComparesMediansOfLikeWindowsBeforeAndAfterAChange) {
    using enum OptimizationVerdict;
    const Watched old{-600, -1, 70}, edit = changeAt(0), now{0, 660};
    const int days = -1'000'000;
    const Watched later{days, days + 399, 70}, latest{days + 400, days + 700};
    const struct {
        Timeline watched;
        OptimizationVerdict verdict = notEnoughData;
        double seconds = 0;
        OptimizationComparison celsius = {70, 65}, load = {40, 40};  // not without enough data
    } cases[] = {
        {{}},
        {{old, {0, 400, 70}}},
        {{{-120, -1, 70}, edit, {0, 180}}, better, 120},
        {{{-119, -1, 70}, edit, now}, notEnoughData, 119},
        {{old, edit, {0, 179}}, notEnoughData, 119},
        {{{-2000, -1, 70}, edit, {0, 2000}}, better, 600},
        {{{-600, -1, 70, 40, 0.0625}, edit, now}, better, 375.9375},
        {{old, edit, {0, 660, 65, 30}}, better, 600, {70, 65}, {40, 30}},
        {{old, edit, {0, 660, 60, 29.9}}, loadDiffers, 600, {70, 60}, {40, 29.9}},
        {{old, edit, {0, 660, 90, 50.1}}, loadDiffers, 600, {70, 90}, {40, 50.1}},
        {{old, edit, {0, 660, 68}}, better, 600, {70, 68}},
        {{old, edit, {0, 660, 68.1}}, unchanged, 600, {70, 68.1}},
        {{old, edit, {0, 660, 71.9}}, unchanged, 600, {70, 71.9}},
        {{old, edit, {0, 660, 72}}, worse, 600, {70, 72}},
        // Peaks, settling, and what lies outside the windows.
        {{{-600, -201, 20}, {-200, -99, 70}, {-98, -1, 105}, edit, {0, 260}}, better, 200},
        {{old, edit, {0, 59, 99}, {60, 361}, {362, 660, 99}}, better, 600},
        {{{-300, -1, 70}, edit, {0, 360}, {361, 660, 99}}, better, 300},
        {{{-200, -101, 70}, {-100, -1, 72}, edit, {0, 260}}, better, 200, {71, 65}},
        // Every other sample suffices.
        {{{-300, -151, kNaN}, {-150, -1, 70}, edit, now}, better, 300},
        {{{-300, -150, kNaN}, {-149, -1, 70}, edit, now}, notEnoughData, 300},
        {{old, edit, {0, 209, kNaN}, {210, 360}}, better, 300},
        {{old, edit, {0, 210, 65, kNaN}, {211, 360}}, notEnoughData, 300},
        // Gaps, other changes, a late note, a clock that is set back.
        {{{-600, -201, 20}, {-185, -1, 70}, edit, now}, better, 185},
        {{{-600, -195, 70}, {-180, -1, 70}, edit, now}, better, 600},
        {{old, edit, {0, 360}, {376, 700, 99, 90}}, better, 300},
        {{old, edit, {0, 30}, {90, 900}}},
        {{{-600, -16, 70}, edit, now}},
        {{{-300, -1, 70}, {1, 5}, edit, {6, 660}}, better, 300},
        {{old, edit, {0, 199}, changeAt(200)}},
        {{old, edit, {0, 59, 99}, {60, 199}, changeAt(200), {200, 660}}, unchanged, 140, {65, 65}},
        {{old, edit, {0, 30}, {days, days + 400}}},
        {{old, edit, {0, 30}, later, changeAt(days + 400), latest}, better, 240},
    };
    for (const auto& it : cases) {
        SCOPED_TRACE(&it - cases);
        OptimizationAssessment assessment = observed(it.watched);
        OptimizationResult told{it.verdict, it.seconds, {}, {}, {}, {}};
        if (it.verdict != notEnoughData) {
            told = {it.verdict, it.seconds, it.load, it.celsius, {}, {}};
            told.watts = {it.load.before / 2, it.load.after / 2};
            if (it.celsius.after < 80) {
                told.fanRpm = {30 * it.celsius.before, 30 * it.celsius.after};
            }
        }
        EXPECT_EQ(assessment.assess(), told) << assessment.assess().windowSeconds;
        assessment.append({Date{kNaN}, 90, 99, 9, 9});
        EXPECT_EQ(assessment.assess(), told) << "no moment at all";
        assessment.noteChange(Date{kInfinity});
        EXPECT_EQ(assessment.assess(), OptimizationResult{});
    }
    std::string titles;
    for (int verdict = 0; verdict < 5; ++verdict) {
        titles.append(title(OptimizationVerdict(verdict))).append(" ");
    }
    EXPECT_EQ(titles, "数据不足 负载不同，无法比较 温度下降 没有明显变化 温度上升 ");
}

}  // namespace
}  // namespace ferovane::testing
