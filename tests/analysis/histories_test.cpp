// What the histories keep, beside models that keep every sample; what is judged of them.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <deque>
#include <iterator>
#include <limits>
#include <map>
#include <span>
#include <string>
#include <tuple>
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

struct Told {
    Date date;
    std::optional<double> load, celsius;
    TurboState state = TurboState::unknown;
};

// A time in which one thing holds, and the samples in it.
struct Stretch {
    Date from, to;
    double kind = 0;
    bool joined = false;  // to the one before
    std::vector<Told> told;
};
using Stretches = std::vector<Stretch>;

// What a clock that was set back to `date` leaves: of what reaches past it the figures, up to then.
template <class Periods>
void setBack(Date date, Periods& all) {
    std::erase_if(all, [&](const auto& it) { return it.from >= date; });
    std::ranges::for_each(all, [&](auto& it) { it.to = std::min(it.to, date); });
}

Stretches after(Date date, Stretches all) {
    std::erase_if(all, [&](const Stretch& it) { return it.to <= date; });
    std::ranges::for_each(all, [&](Stretch& it) { it.from = std::max(it.from, date); });
    return all;
}

Date even(Date date, double length) {
    return {std::floor(date.secondsSinceReference / length) * length};
}

// So far that two ways of taking a mean agree; no mean of whole numbers lies between two steps.
double rounded(double mean) {
    constexpr double kSteps = 1048576 / 3.;
    return std::round(mean * kSteps) / kSteps;
}

// The busy periods in pieces without a gap; `current` when the last one goes on.
SustainedLoad::State busyIn(const Stretches& pieces, bool& current) {
    SustainedLoad::State found;
    for (std::size_t at = 0; at < pieces.size();) {
        SustainedLoadPeriod it{pieces[at].from, pieces[at].from, 0, 0};
        double work = 0, peak = 0;
        bool open = true;  // nothing has ended it yet
        for (; at < pieces.size() && open; ++at) {
            const auto& [from, to, load, joined, told] = pieces[at];
            const bool busy = it.seconds() >= 30;
            work += (to - from) * load;
            peak = std::max(peak, load);
            if (load >= (busy ? 50 : 70)) {
                it = {it.from, to, rounded(work / (to - it.from)), peak};
            }
            open = it.seconds() > 0 && (busy ? to - it.to < 15 : to - it.to <= 5);
        }
        current = open && it.seconds() >= 30;
        if (it.seconds() >= 30) {
            found.push_back(it);
        }
    }
    return found;
}

std::optional<TurboMeasure> measured(const std::vector<Told>& samples,
                                     std::optional<double> Told::*value, Date from, Date to) {
    TurboMeasure all{0, -kInfinity, 0};
    for (const Told& it : samples) {
        if (it.date >= from && it.date <= to && known(it.*value)) {
            all = {all.mean + *(it.*value), std::max(all.highest, *(it.*value)), all.samples + 1};
        }
    }
    all.mean = rounded(all.mean / all.samples);
    return all.samples > 0 ? std::optional(all) : std::nullopt;
}

// What every sample that counts has told.
struct Model {
    explicit Model(double longestGap) : gap(longestGap), time(longestGap) {}

    void append(const Told& now) {
        const auto seen = time.see(now.date);
        complete = seen.goesOn && known(now.load) && known(now.celsius) && hasState(now);
        if (!seen.counts) {
            return;
        }
        const Date stretch = even(now.date, 300);
        if (!seen.goesOn || !known(now.load)) {
            ended = busy();
            run.clear();
            ended = busy();  // the one that went on is one of the ended ones now
        }
        if (seen.setBack) {
            setBack(now.date, buckets);
            setBack(now.date, periods);
            setBack(now.date, ended);
            setBack(now.date, hour);
            setBack(stretch, day);
            std::ranges::copy(after(stretch, hour), std::back_inserter(day));
        }
        std::erase_if(buckets, [&](const Stretch& it) { return it.to < now.date - 600; });
        if (seen.goesOn && known(now.load)) {
            for (Stretches* pieces : {&hour, &day, &run}) {
                pieces->push_back({*seen.before, now.date, *now.load, {}, {}});
            }
        }
        hour = after(now.date - 3600, std::move(hour));
        day = after(even(now.date - 86400, 300), std::move(day));
        unseen = unseen || !seen.goesOn;
        if (known(now.celsius)) {
            const auto last = buckets.empty() ? std::nullopt : std::optional(buckets.back().to);
            put(now, even(now.date, 20).secondsSinceReference,
                !std::exchange(unseen, false) && unbroken(last, now.date, gap) > 0, buckets);
        }
        if (const bool joins = std::exchange(open, hasState(now)) && seen.goesOn; open) {
            put(now, int(now.state), joins, periods);
        }
    }

    static bool hasState(const Told& it) { return it.state < TurboState::unknown; }
    static void put(const Told& now, double kind, bool joins, Stretches& all) {
        if (!joins || all.back().kind != kind) {
            all.push_back({now.date, now.date, kind, joins, {}});
        }
        all.back().to = now.date;
        all.back().told.push_back(now);
    }

    std::vector<MetricBucket> series() const {
        std::vector<MetricBucket> series;
        for (const auto& [from, to, cell, joined, told] : buckets) {
            MetricBucket it{from, to, kInfinity, 0, -kInfinity, 0, !joined};
            for (const Told& sample : told) {
                it.minimum = std::min(it.minimum, *sample.celsius);
                it.maximum = std::max(it.maximum, *sample.celsius);
                it.mean += *sample.celsius;
                ++it.samples;
            }
            it.mean = rounded(it.mean / it.samples);
            series.push_back(it);
        }
        return series;
    }

    static auto bandOf(double load) {
        return CpuLoadBand((load >= 10) + (load >= 35) + (load >= 65) + (load >= 90));
    }
    CpuLoadHistory::State load() const {
        CpuLoadHistory::State state;
        for (const Stretch& it : hour) {
            auto& spans = state.spans;
            if (spans.empty() || spans.back().to != it.from ||
                spans.back().band != bandOf(it.kind)) {
                spans.push_back({it.from, it.from, bandOf(it.kind)});
            }
            spans.back().to = it.to;
        }
        std::map<Date, CpuLoadStretch> stretches;
        for (const Stretch& it : day) {
            for (Date at = even(it.from, 300); at < it.to; at = at + 300) {
                stretches[at].from = at;
                stretches[at].seconds[std::size_t(bandOf(it.kind))] +=
                    std::min(it.to, at + 300) - std::max(it.from, at);
            }
        }
        for (const auto& [from, it] : stretches) {
            state.day.push_back(it);
        }
        return state;
    }

    SustainedLoad::State busy() {
        SustainedLoad::State all = ended;
        current = false;
        std::ranges::copy(busyIn(run, current), std::back_inserter(all));
        while (all.size() > SustainedLoad::kMostPeriods + (current ? 1 : 0)) {
            all.pop_front();
        }
        return all;
    }

    TurboHistory::State turbo() const {
        TurboHistory::State all;
        const Date ever{kInfinity}, never{-kInfinity};
        const std::vector<Told>* before = nullptr;
        for (const auto& [from, to, kind, joined, told] : periods) {
            const auto state = TurboState(int(kind));
            all.periods.push_back({state, from, to, measured(told, &Told::load, never, ever),
                                   measured(told, &Told::celsius, never, ever)});
            if (joined) {
                all.changes.push_back({from, state, measured(*before, &Told::load, from - 60, ever),
                                       measured(told, &Told::load, never, from + 60),
                                       measured(*before, &Told::celsius, from - 60, ever),
                                       measured(told, &Told::celsius, never, from + 60)});
            }
            before = &told;
        }
        return all;
    }

    double gap;
    TimeModel time;
    bool complete = false;  // the last sample was
    bool unseen = false;    // what lies between the last temperature and now
    bool open = false;      // the last sample had a state
    bool current = false;
    Stretches buckets, periods;  // of a series of 20 s over ten minutes; of the turbo history
    Stretches hour, day, run;    // a piece per load
    SustainedLoad::State ended;
};

std::vector<MetricBucket> rounded(std::span<const MetricBucket> buckets) {
    std::vector<MetricBucket> all(buckets.begin(), buckets.end());
    std::ranges::for_each(all, [](auto& it) { it.mean = rounded(it.mean); });
    return all;
}
SustainedLoad::State rounded(SustainedLoad::State all) {
    std::ranges::for_each(all, [](auto& it) { it.mean = rounded(it.mean); });
    return all;
}
TurboHistory::State rounded(TurboHistory::State state) {
    const auto round = [](std::initializer_list<std::optional<TurboMeasure>*> all) {
        for (auto* it : all) {
            *it = *it ? TurboMeasure{rounded((*it)->mean), (*it)->highest, (*it)->samples} : *it;
        }
    };
    for (TurboPeriod& it : state.periods) {
        round({&it.load, &it.temperature});
    }
    for (TurboChange& it : state.changes) {
        round({&it.loadBefore, &it.loadAfter, &it.temperatureBefore, &it.temperatureAfter});
    }
    return state;
}

TEST(HistoriesTest, KeepWhatEverySampleThatCountsHasTold) {
    std::size_t busy = 0, changes = 0, days = 0, restarts = 0;
    for (unsigned seed = 0; seed < 50; ++seed) {
        Dice dice(seed);
        const double gap = dice.pick({15, 15, 75});
        Clock clock(dice, gap > 15 ? dice.pick({20, 40}) : dice.pick({1, 1, 2.5, 7}), 60);
        MetricSeries series(20, 600, gap);
        CpuLoadHistory load(gap);
        SustainedLoad sustained(gap);
        TurboHistory turbo(gap);
        Model model(gap);
        Told now;
        for (int i = 0; i < 1200; ++i) {
            SCOPED_TRACE("seed " + std::to_string(seed) + ", sample " + std::to_string(i));
            const Date last = std::exchange(now.date, clock.next());
            if (dice.oneIn(30) && model.complete && sustained.current() && now.date != last &&
                std::abs(now.date - last) < 3000) {
                const auto buckets = std::exchange(series, MetricSeries(20, 600, gap));
                const auto spans = std::exchange(load, CpuLoadHistory(gap)).state();
                const auto periods = std::exchange(sustained, SustainedLoad(gap)).state();
                const auto states = std::exchange(turbo, TurboHistory(gap)).state();
                ASSERT_TRUE(series.restore(buckets.buckets()) && load.restore(spans) &&
                            sustained.restore(periods) && turbo.restore(states));
                model.time.interrupt();
                ++restarts;
            }
            if (dice.oneIn(dice.oneIn(2) ? 2 : 30)) {
                now.load = dice.pick({0, 9.99, 10, 34.99, 35, 49.99, 50, 64.99, 65, 69.99, 70, 70,
                                      80, 80, 89.99, 90, 90, 100});
            }
            now.state = dice.oneIn(60) ? TurboState(dice.upTo(3)) : now.state;
            Told told = now;
            told.load = dice.maybe(200, dice.oneIn(200) ? kNaN : now.load.value_or(0));
            told.celsius = dice.maybe(20, dice.oneIn(20) ? kNaN : dice.upTo(99));
            series.append(told.date, told.celsius);
            load.append(told.date, told.load);
            sustained.append(told.date, told.load);
            turbo.append(told.date, told.state, told.load, told.celsius);
            model.append(told);
            if (!dice.oneIn(20)) {
                continue;
            }
            const auto expected = model.load();
            double seconds[5] = {};
            for (const auto& [from, to, band] : expected.spans) {
                seconds[int(band)] += to - from;
            }
            for (int band = 0; band < 5; ++band) {
                ASSERT_EQ(load.seconds(CpuLoadBand(band)), seconds[band]);
            }
            ASSERT_EQ(load.state(), expected);
            ASSERT_EQ(rounded(series.buckets()), model.series());
            ASSERT_EQ(rounded(sustained.state()), model.busy());
            ASSERT_EQ(sustained.current().has_value(), model.current);
            ASSERT_EQ(rounded(turbo.state()), model.turbo());
            busy += sustained.state().size();
            changes += turbo.changes().size();
            days += load.day().size();
        }
    }
    EXPECT_GT(std::min({busy / 10, changes, days / 10, restarts * 10}), 2000);
}

TEST(HistoriesTest, AreBounded) {
    constexpr double kHuge = std::numeric_limits<double>::max();
    CpuLoadHistory load;
    SustainedLoad sustained;
    TurboHistory turbo;
    MetricSeries huge(1e6, 1e6);
    for (int i = 0; i < 5000; ++i) {
        load.append(kStart + i * 0.5, i % 2 * 95);
        sustained.append(kStart + i * 15, i % 3 == 0 ? std::nullopt : std::optional(90.0));
        turbo.append(kStart + i, i % 2 ? TurboState::driverNotLoaded : TurboState{}, 1, 1);
        huge.append(kStart + i, i % 3 ? kHuge : -kHuge);
        ASSERT_LE(std::abs(huge.buckets()[0].mean), kHuge);
    }
    EXPECT_EQ(load.spans().size(), CpuLoadHistory::kMostSpans);
    EXPECT_EQ(load.spans().back().to, kStart + 2499.5);
    for (int i = 0; i <= 90000; i += 15) {
        load.append(kStart + 3000 + i, 50);
        ASSERT_LE(load.day().size(), 289);
    }
    EXPECT_EQ(load.day().front().from, even(kStart + 6600, 300));
    EXPECT_EQ(sustained.ended().size(), SustainedLoad::kMostPeriods);
    EXPECT_EQ(turbo.periods().size(), TurboHistory::kMostPeriods);
    EXPECT_EQ(turbo.changes().size(), TurboHistory::kMostChanges);
}

TEST(HistoriesTest, TakeOverWhatIsInOrderOnly) {
    const struct {
        double from, to, from2, to2;
        bool ordered = false;
    } cases[] = {{0, 1, 1, 1, true}, {0, 0, 0, 0, true},  // rounded, as a file does
                 {1, 0, 2, 3},       {0, 2, 1, 3},         {0, 1, 2, 1},
                 {kNaN, 1, 2, 3},    {0, 1, 2, kInfinity}, {0, 1, 9e99, 9e99}};
    for (const auto& [from, to, from2, to2, ordered] : cases) {
        const CpuLoadSpan both[] = {{kStart + from, kStart + to, {}},
                                    {kStart + from2, kStart + to2, {}}};
        EXPECT_EQ(inOrder(&CpuLoadSpan::from, &CpuLoadSpan::to, both), ordered);
    }
    const Date early = even(kStart, 300), late = early + 300;
    EXPECT_TRUE(CpuLoadHistory().restore({{}, {{early, {}}, {late, {}}}}));
    for (const CpuLoadStretch& bad :
         {CpuLoadStretch{late + 1, {}}, {late, {0, -1}}, {late, {kNaN}}, {early - 300, {}}}) {
        EXPECT_FALSE(CpuLoadHistory().restore({{}, {{early, {}}, bad}}));
    }
    EXPECT_TRUE(CpuLoadHistory().restore({{{early, late, {}}}, {{early, {}}, {late, {}}}}));
    for (const CpuLoadHistory::State& bad :
         {CpuLoadHistory::State{{{late, early, {}}}, {{early, {}}}},
          {{{early, late, {}}}, {}},
          {{{early, late, CpuLoadBand(5)}}, {{early, {}}}},
          {{{early, late - 1, {}}}, {{late, {}}}}}) {
        EXPECT_FALSE(CpuLoadHistory().restore(bad));
    }
    EXPECT_FALSE(SustainedLoad().restore({{late, early, 1, 1}}));
    EXPECT_FALSE(TurboHistory().restore({{{{}, late, early, {}, {}}}, {}}));
    EXPECT_FALSE(TurboHistory().restore({{}, {{Date{kNaN}, {}, {}, {}, {}, {}}}}));
    for (const auto& [low, mean, high, samples, to] : {std::tuple(1., 0., 1., 1U, late),
                                                       {1., 2., 1., 1U, late},
                                                       {1., 1., 1., 0U, late},
                                                       {-kInfinity, 1., 1., 1U, late},
                                                       {1., 1., kInfinity, 1U, late},
                                                       {1., kNaN, 1., 1U, late},
                                                       {1., 1., 1., 1U, early - 1}}) {
        const MetricBucket bad{early, to, low, mean, high, samples, true};
        EXPECT_FALSE(MetricSeries(20, 600).restore(std::span(&bad, 1)));
    }
    const std::deque<OptimizationSample> one{{early, {}, {}, {}, {}}};
    EXPECT_TRUE(OptimizationAssessment().restore({early - 1e-6, one, {}}));
    for (const OptimizationAssessment::State& bad :
         {OptimizationAssessment::State{{}, one, {}},
          {{}, {}, one},
          {Date{kNaN}, {}, {}},
          {late, {one[0], {early - 1, {}, {}, {}, {}}}, {}},
          {late, {}, {6001, one[0]}}}) {
        EXPECT_FALSE(OptimizationAssessment().restore(bad));
    }
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
        {{{-120, -1, 70}, edit, {0, 180}}, over, 120, better},
        {{{-119, -1, 70}, edit, now}, never, 119},
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
}

}  // namespace
}  // namespace ferovane::testing
