// What the histories keep, beside models that keep every sample; what is judged of them.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <deque>
#include <iterator>
#include <limits>
#include <map>
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
void setBack(Date date, Date Period::*from, Date Period::*to, Periods& all) {
    std::erase_if(all, [&](const Period& it) { return it.*from >= date; });
    for (Period& it : all) {
        it.*to = std::min(it.*to, date);
    }
}

// So far that two ways of taking a mean agree; no mean of whole numbers lies between two steps.
double rounded(double mean) {
    constexpr double kSteps = 1048576 / 3.;
    return std::round(mean * kSteps) / kSteps;
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
            setBack(date, &MetricBucket::first, &MetricBucket::last, told);
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
    for (unsigned seed = 0; seed < 40; ++seed) {
        Dice dice(seed);
        Clock clock(dice, dice.pick({1.25, 9}));
        const double gap = dice.pick({15, 75});
        MetricSeries series(20, 600, gap);
        SeriesModel model(gap);
        for (int i = 0; i < 1000; ++i) {
            SCOPED_TRACE("seed " + std::to_string(seed) + ", sample " + std::to_string(i));
            if (dice.oneIn(200)) {
                const auto kept = std::exchange(series, MetricSeries(20, 600, gap));
                ASSERT_TRUE(series.restore(kept.buckets()));
                model.unseen = true;
                model.time.restore(model.told.empty() ? std::nullopt
                                                      : std::optional(model.told.back().last));
            }
            const Date date = clock.next();
            const double value = dice.oneIn(20) ? dice.pick({kNaN, kHuge, -kHuge}) : dice.upTo(999);
            const auto given = dice.maybe(10, value);
            series.append(date, given);
            model.append(date, given);
            ASSERT_EQ(series.buckets().size(), model.told.size());
            for (std::size_t at = 0; at < model.told.size(); ++at) {
                MetricBucket bucket = series.buckets()[at];
                const MetricBucket& told = model.told[at];
                const double extent = told.maximum / 2 - told.minimum / 2;
                ASSERT_NEAR(bucket.mean, told.mean, 1e-9 * extent + 1e-9);
                ASSERT_TRUE(bucket.minimum <= bucket.mean && bucket.mean <= bucket.maximum);
                bucket.mean = told.mean;
                ASSERT_EQ(bucket, told);
            }
        }
    }
}

// The time from one sample to the next, and the load in it.
struct Piece {
    Date from, to;
    double load;
};

// What is left of the pieces after a date.
std::vector<Piece> after(Date date, std::vector<Piece> pieces) {
    std::erase_if(pieces, [&](const Piece& it) { return it.to <= date; });
    for (Piece& it : pieces) {
        it.from = std::max(it.from, date);
    }
    return pieces;
}

struct LoadModel {
    void append(Date date, std::optional<double> load) {
        const auto seen = time.see(date);
        if (!seen.counts) {
            return;
        }
        if (seen.setBack) {
            setBack(date, &Piece::from, &Piece::to, hour);
            setBack(stretchOf(date), &Piece::from, &Piece::to, day);
            const auto again = after(stretchOf(date), hour);
            day.insert(day.end(), again.begin(), again.end());
        }
        if (seen.goesOn && known(load)) {
            hour.push_back({*seen.before, date, *load});
            day.push_back(hour.back());
        }
        hour = after(date - 3600, std::move(hour));
        day = after(stretchOf(date - 86400), std::move(day));
    }
    static Date stretchOf(Date date) {
        return {std::floor(date.secondsSinceReference / 300) * 300};
    }
    static int bandOf(const Piece& it) {
        return (it.load >= 10) + (it.load >= 35) + (it.load >= 65) + (it.load >= 90);
    }
    CpuLoadHistory::State state() const {
        CpuLoadHistory::State state;
        for (const Piece& it : hour) {
            const auto band = CpuLoadBand(bandOf(it));
            if (state.spans.empty() || state.spans.back().to != it.from ||
                state.spans.back().band != band) {
                state.spans.push_back({it.from, it.from, band});
            }
            state.spans.back().to = it.to;
        }
        std::map<Date, CpuLoadStretch> stretches;
        for (const Piece& it : day) {
            for (Date at = stretchOf(it.from); at < it.to; at = at + 300) {
                stretches[at].from = at;
                stretches[at].seconds[std::size_t(bandOf(it))] +=
                    std::min(it.to, at + 300) - std::max(it.from, at);
            }
        }
        for (const auto& [from, stretch] : stretches) {
            state.day.push_back(stretch);
        }
        return state;
    }

    TimeModel time;
    std::vector<Piece> hour, day;
};

// The busy periods in pieces without a gap; `current` when the last one goes on.
std::deque<SustainedLoadPeriod> busyIn(const std::vector<Piece>& pieces, bool& current) {
    std::deque<SustainedLoadPeriod> found;
    for (std::size_t at = 0; at < pieces.size();) {
        if (pieces[at].load < 70) {
            ++at;
            continue;
        }
        bool open = true;  // nothing has ended it yet
        SustainedLoadPeriod it{pieces[at].from, pieces[at].from, 0, 0};
        double work = 0, peak = 0;
        for (; at < pieces.size() && open; ++at) {
            const bool busy = it.seconds() >= 30;
            work += (pieces[at].to - pieces[at].from) * pieces[at].load;
            peak = std::max(peak, pieces[at].load);
            if (pieces[at].load >= (busy ? 50 : 70)) {
                it = {it.from, pieces[at].to, rounded(work / (pieces[at].to - it.from)), peak};
            }
            const double calm = pieces[at].to - it.to;
            open = busy ? calm < 15 : calm <= 5;
        }
        current = open && it.seconds() >= 30;
        if (it.seconds() >= 30) {
            found.push_back(it);
        }
    }
    return found;
}

struct BusyModel {
    void append(Date date, std::optional<double> load) {
        const auto seen = time.see(date);
        if (seen.counts && seen.goesOn && known(load)) {
            run.push_back({*seen.before, date, *load});
        } else if (seen.counts) {
            ended = state();
            run.clear();
        }
        if (seen.setBack) {
            setBack(date, &SustainedLoadPeriod::from, &SustainedLoadPeriod::to, ended);
        }
    }
    std::deque<SustainedLoadPeriod> state() {
        current = false;
        std::deque<SustainedLoadPeriod> all = ended;
        std::ranges::copy(busyIn(run, current), std::back_inserter(all));
        while (all.size() > SustainedLoad::kMostPeriods + (current ? 1 : 0)) {
            all.pop_front();
        }
        return all;
    }

    TimeModel time;
    std::vector<Piece> run;
    std::deque<SustainedLoadPeriod> ended;
    bool current = false;
};

struct TurboSample {
    Date date;
    std::optional<double> load, celsius;
};

std::optional<TurboMeasure> measured(const std::vector<TurboSample>& samples,
                                     std::optional<double> TurboSample::*value, Date from,
                                     Date to) {
    TurboMeasure all{0, -kInfinity, 0};
    for (const TurboSample& it : samples) {
        if (it.date >= from && it.date <= to && known(it.*value)) {
            all = {all.mean + *(it.*value), std::max(all.highest, *(it.*value)), all.samples + 1};
        }
    }
    all.mean = rounded(all.mean / all.samples);
    return all.samples > 0 ? std::optional(all) : std::nullopt;
}

struct TurboModel {
    struct Period {
        TurboState state;
        Date from, to;
        bool change;  // seen to begin
        std::vector<TurboSample> samples, before;
    };
    void append(Date date, TurboState state, std::optional<double> load,
                std::optional<double> celsius) {
        const auto seen = time.see(date);
        if (!seen.counts) {
            return;
        }
        if (seen.setBack) {
            setBack(date, &Period::from, &Period::to, periods);
        }
        const bool joins = std::exchange(open, state == TurboState::disabledDriverLoaded ||
                                                   state == TurboState::driverNotLoaded) &&
                           seen.goesOn;
        if (!open) {
            return;
        }
        if (!joins || periods.back().state != state) {
            const auto before = joins ? periods.back().samples : std::vector<TurboSample>();
            periods.push_back({state, date, date, joins, {}, before});
        }
        periods.back().to = date;
        periods.back().samples.push_back({date, load, celsius});
    }
    TurboHistory::State state() const {
        TurboHistory::State all;
        constexpr auto kLoad = &TurboSample::load, kCelsius = &TurboSample::celsius;
        for (const Period& it : periods) {
            const Date ever{kInfinity}, never{-kInfinity}, early = it.from - 60,
                                                           late = it.from + 60;
            all.periods.push_back({it.state, it.from, it.to,
                                   measured(it.samples, kLoad, never, ever),
                                   measured(it.samples, kCelsius, never, ever)});
            if (it.change) {
                all.changes.push_back({it.from, it.state, measured(it.before, kLoad, early, ever),
                                       measured(it.samples, kLoad, never, late),
                                       measured(it.before, kCelsius, early, ever),
                                       measured(it.samples, kCelsius, never, late)});
            }
        }
        return all;
    }

    TimeModel time;
    bool open = false;  // the last sample had a state
    std::vector<Period> periods;
};

SustainedLoad::State rounded(SustainedLoad::State state) {
    for (SustainedLoadPeriod& it : state) {
        it.mean = rounded(it.mean);
    }
    return state;
}
TurboHistory::State rounded(TurboHistory::State state) {
    std::vector<std::optional<TurboMeasure>*> all;
    for (TurboPeriod& it : state.periods) {
        all.insert(all.end(), {&it.load, &it.temperature});
    }
    for (TurboChange& it : state.changes) {
        all.insert(all.end(),
                   {&it.loadBefore, &it.loadAfter, &it.temperatureBefore, &it.temperatureAfter});
    }
    for (std::optional<TurboMeasure>* it : all) {
        if (*it) {
            (*it)->mean = rounded((*it)->mean);
        }
    }
    return state;
}

// Makes a history anew from what it keeps.
template <class History>
void restart(History& history, double gap) {
    const auto kept = std::exchange(history, History(gap)).state();
    ASSERT_TRUE(history.restore(kept));
}

std::optional<Date> lastOf(const auto& periods, auto member) {
    return periods.empty() ? std::nullopt : std::optional(periods.back().*member);
}

TEST(HistoriesTest, KeepWhatEverySampleThatCountsHasTold) {
    std::size_t busy = 0, changes = 0, days = 0;
    for (unsigned seed = 0; seed < 40; ++seed) {
        Dice dice(seed);
        const double gap = dice.pick({15, 15, 75});
        Clock clock(dice, gap > 15 ? dice.pick({20, 40}) : dice.pick({1, 1, 2.5, 7}), 60);
        CpuLoadHistory load(gap);
        SustainedLoad sustained(gap);
        TurboHistory turbo(gap);
        LoadModel loadModel{TimeModel(gap), {}, {}};
        BusyModel busyModel{TimeModel(gap), {}, {}};
        TurboModel turboModel{TimeModel(gap), false, {}};
        double percent = 0;
        TurboState state = TurboState::driverNotLoaded;
        for (int i = 0; i < 2000; ++i) {
            SCOPED_TRACE("seed " + std::to_string(seed) + ", sample " + std::to_string(i));
            const Date date = clock.next();
            percent = dice.oneIn(dice.oneIn(2) ? 2 : 30)
                          ? dice.pick({0, 9.99, 10, 34.99, 35, 49.99, 50, 64.99, 65, 69.99, 70, 70,
                                       80, 80, 89.99, 90, 90, 100})
                          : percent;
            state = dice.oneIn(60) ? TurboState(dice.upTo(3)) : state;
            const auto usage = dice.maybe(200, dice.oneIn(200) ? kNaN : percent);
            const auto celsius = dice.maybe(20, dice.oneIn(20) ? kNaN : dice.upTo(99));
            load.append(date, usage);
            loadModel.append(date, usage);
            sustained.append(date, usage);
            busyModel.append(date, usage);
            turbo.append(date, state, usage, celsius);
            turboModel.append(date, state, usage, celsius);
            if (dice.oneIn(400)) {
                restart(load, gap);
                restart(sustained, gap);
                restart(turbo, gap);
                const auto now = loadModel.state();
                loadModel.time.restore(now.spans.empty() ? lastOf(now.day, &CpuLoadStretch::from)
                                                         : lastOf(now.spans, &CpuLoadSpan::to));
                busyModel.ended = busyModel.state();
                busyModel.run.clear();
                busyModel.ended = busyModel.state();
                busyModel.time.restore(lastOf(busyModel.ended, &SustainedLoadPeriod::to));
                turboModel.time.restore(lastOf(turboModel.periods, &TurboModel::Period::to));
            }
            if (!dice.oneIn(20)) {
                continue;
            }
            const auto expected = loadModel.state();
            ASSERT_EQ(load.state(), expected);
            for (int band = 0; band < 5; ++band) {
                double seconds = 0;
                for (const Piece& it : loadModel.hour) {
                    seconds += LoadModel::bandOf(it) == band ? it.to - it.from : 0;
                }
                ASSERT_EQ(load.seconds(CpuLoadBand(band)), seconds);
            }
            const auto periods = busyModel.state();
            ASSERT_EQ(rounded(sustained.state()), periods);
            ASSERT_EQ(sustained.current().has_value(), busyModel.current);
            ASSERT_EQ(rounded(turbo.state()), turboModel.state());
            busy += periods.size();
            changes += turbo.changes().size();
            days += expected.day.size();
        }
    }
    EXPECT_GT(std::min({busy / 10, changes, days / 10}), 4000);
}

// What the histories say themselves at the edges of what they keep.
TEST(HistoriesTest, AreBounded) {
    CpuLoadHistory load;
    SustainedLoad sustained;
    TurboHistory turbo;
    for (int i = 0; i < 5000; ++i) {
        load.append(kStart + i * 0.5, i % 2 * 95);
        sustained.append(kStart + i * 15, i % 3 == 0 ? std::nullopt : std::optional(90.0));
        turbo.append(kStart + i, TurboState(i % 2), 1, 1);
    }
    EXPECT_EQ(load.spans().size(), CpuLoadHistory::kMostSpans);
    EXPECT_EQ(load.spans().back().to, kStart + 2499.5);
    EXPECT_EQ(sustained.ended().size(), SustainedLoad::kMostPeriods);
    EXPECT_EQ(turbo.periods().size(), TurboHistory::kMostPeriods);
    EXPECT_EQ(turbo.changes().size(), TurboHistory::kMostChanges);
}

// Dates that no history tells, of two periods.
TEST(HistoriesTest, TakeNothingOverThatIsOutOfOrder) {
    const struct {
        double from, to, from2, to2;
    } cases[] = {{1, 0, 2, 3},    {0, 2, 1, 3},         {2, 3, 0, 1},
                 {0, 0, 0, 0},    {0, 1, 0, 1},         {kNaN, 1, 2, 3},
                 {0, kNaN, 2, 3}, {0, 1, 2, kInfinity}, {0, 1, 9e99, 9e99}};
    for (const auto& [from, to, from2, to2] : cases) {
        const Date a = kStart + from, b = kStart + to, c = kStart + from2, d = kStart + to2;
        EXPECT_FALSE(MetricSeries(20, 600).restore(
            std::vector<MetricBucket>{{a, b, 1, 1, 1, 1, true}, {c, d, 1, 1, 1, 1, true}}));
        EXPECT_FALSE(CpuLoadHistory().restore({{{a, b, {}}, {c, d, {}}}, {}}));
        EXPECT_FALSE(SustainedLoad().restore({{a, b, 1, 1}, {c, d, 1, 1}}));
        EXPECT_FALSE(TurboHistory().restore({{{{}, a, b, {}, {}}, {{}, c, d, {}, {}}}, {}}));
        if (!(from2 > from)) {
            EXPECT_FALSE(
                TurboHistory().restore({{}, {{a, {}, {}, {}, {}, {}}, {c, {}, {}, {}, {}, {}}}}));
            EXPECT_FALSE(OptimizationAssessment().restore(
                {kStart + 9, {{a, {}, {}, {}, {}}, {c, {}, {}, {}, {}}}, {}}));
            EXPECT_FALSE(OptimizationAssessment().restore(
                {kStart, {}, {{a, {}, {}, {}, {}}, {c, {}, {}, {}, {}}}}));
        }
    }
    const Date even{300};
    for (const CpuLoadStretch& bad :
         {CpuLoadStretch{even + 1, {}}, {even, {0, -1}}, {even, {kNaN}}, {Date{9e99}, {}}}) {
        EXPECT_FALSE(CpuLoadHistory().restore({{}, {bad}}));
    }
    EXPECT_FALSE(CpuLoadHistory().restore({{}, {{even, {}}, {even, {}}}}));
    EXPECT_TRUE(CpuLoadHistory().restore({{}, {{even, {}}, {even + 300, {}}}}));
    for (const MetricBucket& bad : {MetricBucket{even, even, 1, 0, 1, 1, true},
                                    {even, even, 1, 2, 1, 1, true},
                                    {even, even, 1, 1, 1, 0, true},
                                    {even, even, kNaN, 1, 1, 1, true},
                                    {even, even, 1, 1, kInfinity, 1, true},
                                    {even, even, 1, kNaN, 1, 1, true}}) {
        EXPECT_FALSE(MetricSeries(20, 600).restore(std::span(&bad, 1)));
    }
    const OptimizationSample early{even, {}, {}, {}, {}};
    EXPECT_FALSE(OptimizationAssessment().restore({{}, {early}, {}}));
    EXPECT_FALSE(OptimizationAssessment().restore({{}, {}, {early}}));
    EXPECT_FALSE(OptimizationAssessment().restore({even - 1, {early}, {}}));
    EXPECT_FALSE(OptimizationAssessment().restore({Date{kNaN}, {}, {}}));
    EXPECT_FALSE(OptimizationAssessment().restore({even, std::deque(6001, early), {}}));
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
    using enum OptimizationInterruption;
    using enum OptimizationPhase;
    const Watched old{-600, -1, 70}, edit = changeAt(0), now{0, 660};
    const int days = -1'000'000;
    const Watched later{days, days + 399, 70}, latest{days + 400, days + 700};
    const OptimizationProgress over{done, {}, 0}, never{noBaseline, {}, 0};
    const auto left = [](double seconds) { return OptimizationProgress{collecting, {}, seconds}; };
    const struct {
        Timeline watched;
        OptimizationProgress progress;
        double seconds = 0;
        OptimizationVerdict verdict = notEnoughData;
        OptimizationComparison celsius = {70, 65}, load = {40, 40};  // not without enough data
    } cases[] = {
        {{}, {}},
        {{old, {0, 400, 70}}, {}},
        {{{-120, -1, 70}, edit, {0, 180}}, over, 120, better},
        {{{-119, -1, 70}, edit, now}, never, 119},
        {{old, edit}, {settling, {}, 60}},
        {{old, edit, {0, 20}}, {settling, {}, 40}},
        {{old, edit, {0, 179}}, left(481), 119},
        {{{-2000, -1, 70}, edit, {0, 2000}}, over, 600, better},
        {{{-600, -1, 70, 40, 0.0625}, edit, now}, over, 375.9375, better},
        {{old, edit, {0, 700, 65, 40, 0.0625}}, over, 374.9375, better},
        {{old, edit, {0, 660, 65, 30}}, over, 600, better, {70, 65}, {40, 30}},
        {{old, edit, {0, 660, 60, 29.9}}, over, 600, loadDiffers, {70, 60}, {40, 29.9}},
        {{old, edit, {0, 660, 90, 50.1}}, over, 600, loadDiffers, {70, 90}, {40, 50.1}},
        {{old, edit, {0, 660, 68}}, over, 600, better, {70, 68}},
        {{old, edit, {0, 660, 68.1}}, over, 600, unchanged, {70, 68.1}},
        {{old, edit, {0, 660, 71.9}}, over, 600, unchanged, {70, 71.9}},
        {{old, edit, {0, 660, 72}}, over, 600, worse, {70, 72}},
        // Peaks, settling, and what lies outside the windows.
        {{{-600, -201, 20}, {-200, -99, 70}, {-98, -1, 105}, edit, {0, 260}},
         left(400),
         200,
         better},
        {{old, edit, {0, 59, 99}, {60, 361}, {362, 660, 99}}, over, 600, better},
        {{{-300, -1, 70}, edit, {0, 360}, {361, 660, 99}}, over, 300, better},
        {{{-200, -101, 70}, {-100, -1, 72}, edit, {0, 260}}, over, 200, better, {71, 65}},
        // A sample without heat or load does not count; 15 seconds of them are no gap.
        {{{-600, -100, 70}, {-99, -86, kNaN}, {-85, -1, 70}, edit, now}, over, 600, better},
        {{{-600, -100, 70}, {-99, -85, kNaN}, {-84, -1, 70}, edit, now}, never, 84},
        {{old, edit, {0, 100, kNaN}}, {interrupted, temperatureMissing, 60}},
        {{old, edit, {0, 100, 65, kNaN}, {101, 110}}, {interrupted, loadMissing, 51}},
        {{old, edit, {0, 209, kNaN}, {210, 360}}, left(510), 90},
        {{old, edit, {0, 260}, {261, 400, kNaN}, now}, over, 200, better},
        // Gaps, other changes, a late note, a clock that is set back, or wrong for one sample.
        {{{-600, -201, 20}, {-185, -1, 70}, edit, now}, over, 185, better},
        {{{-600, -195, 70}, {-180, -1, 70}, edit, now}, over, 600, better},
        {{old, edit, {0, 180}, {196, 700, 99, 90}}, over, 120, better},
        {{old, edit, {0, 179}, {195, 300}}, left(555), 45},
        {{old, edit, {0, 30}, {90, 100}}, {interrupted, pause, 50}},
        {{old, edit, {0, 30}, {90, 900}}, over, 600, better},
        {{{-600, -16, 70}, edit, now}, never},
        {{{-300, -1, 70}, {1, 5}, edit, {6, 660}}, over, 300, better},
        {{old, changeAt(10), {0, 69}}, left(591), 9},
        {{old, edit, {0, 199}, changeAt(200)}, {settling, {}, 60}},
        {{old, edit, {0, 59, 99}, {60, 199}, changeAt(200), {200, 660}},
         over,
         140,
         unchanged,
         {65, 65}},
        {{old, edit, {0, 30}, {20, 40}}, {interrupted, clockSet, 40}},
        {{old, edit, {0, 100}, {90'000, 90'000}, {101, 300}}, left(360), 240, better},
        {{old, edit, {0, 30}, {days, days + 400}}, left(261), 339, better},
        {{old, edit, {0, 30}, later, changeAt(days + 400), latest}, left(99), 240, better},
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
        EXPECT_EQ(assessment.progress(), it.progress) << assessment.progress().secondsLeft;
        assessment.append({Date{kNaN}, 90, 99, 9, 9});
        EXPECT_EQ(assessment.assess(), told) << "no moment at all";
        // From a file: what is long enough stays, the rest begins anew.
        OptimizationAssessment again;
        ASSERT_TRUE(again.restore(assessment.state()));
        const bool ended = it.progress.phase <= noBaseline || it.progress.phase == done;
        const bool enough = it.verdict != notEnoughData;
        EXPECT_EQ(again.progress(), ended    ? it.progress
                                    : enough ? over
                                             : (OptimizationProgress{interrupted, pause, 60}));
        EXPECT_EQ(again.assess(), enough ? told : OptimizationResult{});
        assessment.noteChange(Date{kInfinity});
        EXPECT_EQ(assessment.assess(), OptimizationResult{});
        EXPECT_EQ(assessment.progress(), OptimizationProgress{});
    }
    std::string titles;
    const auto add = [&](std::string_view text) { titles.append(text).append(" "); };
    for (int i = 0; i < 6; ++i) {
        add(title(CpuLoadBand(i)));
        add(title(OptimizationVerdict(i)));
        add(title(OptimizationPhase(i)));
        add(title(OptimizationInterruption(i)));
    }
    EXPECT_EQ(titles,
              "空闲 数据不足 尚无更改 采样曾暂停 轻度负载 负载不同，无法比较 更改前的数据不足 "
              "系统时钟被调整 中度负载 温度下降 等待温度稳定 缺少处理器负载 高负载 没有明显变化 "
              "正在收集数据 缺少处理器温度 满负载 温度上升 已中断，等待温度重新稳定    已完成  ");
}

}  // namespace
}  // namespace ferovane::testing
