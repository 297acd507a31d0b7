#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <limits>

#include "core/analysis/cpu_load_history.h"
#include "core/analysis/sustained_load.h"
#include "core/analysis/turbo_history.h"
#include "tests/analysis/unremarkable.h"

namespace ferovane {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::kStart;

using Band = CpuLoadBand;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

TEST(CpuLoadBandTest, BeginsEachBandAtItsThreshold) {
    const struct {
        double usage;
        Band band;
    } cases[] = {{0, Band::idle},       {9.99, Band::idle},   {10, Band::light},
                 {34.99, Band::light},  {35, Band::moderate}, {64.99, Band::moderate},
                 {65, Band::heavy},     {89.99, Band::heavy}, {90, Band::saturated},
                 {100, Band::saturated}};
    for (const auto& [usage, band] : cases) {
        EXPECT_EQ(cpuLoadBand(usage), band) << usage;
    }
    EXPECT_EQ(cpuLoadBand(kNaN), std::nullopt);
    EXPECT_EQ(cpuLoadBand(std::nullopt), std::nullopt);
    EXPECT_EQ(title(Band::saturated), "满负载");
}

TEST(CpuLoadHistoryTest, CountsAUsageForTheTimeSinceTheSampleBefore) {
    CpuLoadHistory history;
    history.append(kStart, std::nullopt);
    history.append(kStart + 1, 5);
    history.append(kStart + 4, 5);
    history.append(kStart + 5, 95);
    history.append(kStart + 6, kNaN);
    history.append(kStart + 7, 95);
    history.append(kStart + 22.5, 95);  // 15.5 s that nobody watched
    history.append(kStart + 23.5, 95);
    EXPECT_THAT(history.spans(),
                ElementsAre(CpuLoadSpan{kStart, kStart + 4, Band::idle},
                            CpuLoadSpan{kStart + 4, kStart + 5, Band::saturated},
                            CpuLoadSpan{kStart + 6, kStart + 7, Band::saturated},
                            CpuLoadSpan{kStart + 22.5, kStart + 23.5, Band::saturated}));
    EXPECT_EQ(history.seconds(Band::idle), 4);
    EXPECT_EQ(history.seconds(Band::saturated), 3);
    EXPECT_EQ(history.seconds(Band::heavy), 0);

    for (int second = 30; second < 2 * 3600; ++second) {
        history.append(kStart + second, second % 2 * 95);
    }
    EXPECT_LE(history.spans().size(), CpuLoadHistory::kMostSpans);
    EXPECT_GE(history.seconds(Band::idle) + history.seconds(Band::saturated), 3590);
    history.append(kStart, 5);
    EXPECT_THAT(history.spans(), IsEmpty()) << "the clock was set back";

    for (int second = 1; second <= 10 * 3600; ++second) {
        history.append(kStart + second, 5);
    }
    EXPECT_EQ(history.seconds(Band::idle), CpuLoadHistory::kKeptSeconds) << "one long span";
    EXPECT_EQ(history.spans().front().from, kStart + 9 * 3600);
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
