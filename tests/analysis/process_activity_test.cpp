#include "core/analysis/process_activity.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "core/analysis/diagnostic_engine.h"
#include "tests/analysis/unremarkable.h"

namespace ferovane {
namespace {

using ::testing::IsEmpty;
using testing::kStart;
using testing::unremarkable;

using List = std::vector<ProcessSample>;

constexpr double kMiB = 1024 * 1024;

// Started in the order of its pid unless said otherwise.
ProcessSample process(std::int32_t pid, std::int32_t parent, double cpuSeconds,
                      double diskMiB = 0) {
    return {pid,
            parent,
            static_cast<std::uint64_t>(pid),
            static_cast<std::uint64_t>(cpuSeconds * 1e9),
            static_cast<std::uint64_t>(diskMiB * kMiB / 4),
            static_cast<std::uint64_t>(diskMiB * kMiB * 3 / 4),
            "p" + std::to_string(pid)};
}

// The list `at` gives for each second up to and including `last`.
void follow(ProcessActivity& activity, int first, int last, const std::function<List(int)>& at) {
    for (int second = first; second <= last; ++second) {
        activity.add(kStart + second, at(second));
    }
}

const DiagnosticSource* find(const std::vector<DiagnosticSource>& sources, const std::string& id) {
    const auto found = std::ranges::find(sources, id, &DiagnosticSource::id);
    return found == sources.end() ? nullptr : &*found;
}

TEST(ProcessActivityTest, AveragesOverTheLastMinuteAndTellsTheLastInterval) {
    ProcessActivity activity;
    EXPECT_EQ(activity.windowSeconds(), std::nullopt);
    // 50 % of a core at first, two cores and 8 MiB/s after 30 s.
    const auto at = [](int second) -> List {
        const double busy = std::max(0, second - 30);
        return {process(100, 1, 0.5 * second + 1.5 * busy, 8 * busy)};
    };
    follow(activity, 0, 0, at);
    EXPECT_EQ(activity.windowSeconds(), 0);
    EXPECT_THAT(activity.sources(), IsEmpty());
    follow(activity, 1, 40, at);
    EXPECT_EQ(activity.windowSeconds(), 40);
    auto sources = activity.sources();
    ASSERT_EQ(sources.size(), 1);
    EXPECT_EQ(sources[0].id, "100-100");
    EXPECT_EQ(sources[0].name, "p100");
    EXPECT_NEAR(sources[0].averageCPU, 100 * (0.5 * 40 + 15) / 40, 1e-6);
    EXPECT_NEAR(sources[0].currentCPU, 200, 1e-6);
    EXPECT_NEAR(*sources[0].averageDiskRate, 2 * kMiB, 1);
    EXPECT_NEAR(*sources[0].currentDiskRate, 8 * kMiB, 1);
    EXPECT_EQ(sources[0].diskSeconds, 40);

    follow(activity, 41, 200, at);
    EXPECT_GE(activity.windowSeconds(), 55);
    EXPECT_LE(activity.windowSeconds(), 60);
    sources = activity.sources();
    EXPECT_NEAR(sources[0].averageCPU, 200, 1e-6) << "what lies before the window is forgotten";
    EXPECT_NEAR(*sources[0].averageDiskRate, 8 * kMiB, 1);
}

TEST(ProcessActivityTest, KeepsAWindowLongEnoughForAVerdictAtEveryPaceOfLists) {
    for (const double pace : {0.1, 0.9, 1.0, 4.9, 5.0, 7.0, 10.0, 12.4, 14.9, 15.0}) {
        ProcessActivity activity;
        for (int i = 0; i * pace <= 300; ++i) {
            activity.add(kStart + i * pace, List{process(100, 1, i * pace)});
            if (i * pace > 75) {
                ASSERT_GE(activity.windowSeconds(), 45) << pace;
                ASSERT_LE(activity.windowSeconds(), 60) << pace;
                ASSERT_NEAR(activity.sources().at(0).averageCPU, 100, 1e-3) << pace;
            }
        }
    }
}

TEST(ProcessActivityTest, FoldsHelpersIntoTheirApplication) {
    ProcessActivity activity;
    follow(activity, 0, 10, [](int second) -> List {
        ProcessSample reused = process(400, 300, second);  // 300 is a later process: not its parent
        reused.started = 250;
        return {process(103, 102, second),  // helper of a helper, listed before them
                process(102, 100, second), process(100, 1, second),  // the application
                process(201, 200, second),  // its parent belongs to another user
                process(300, 1, 0, 0),     reused,
                process(1, 0, second)};  // the system's first process, for itself
    });
    auto sources = activity.sources();
    ASSERT_EQ(sources.size(), 5);
    EXPECT_EQ(sources[0].id, "100-100");
    EXPECT_NEAR(sources[0].averageCPU, 300, 1e-6);
    EXPECT_EQ(sources[1].id, "201-201");
    EXPECT_EQ(find(sources, "300-300")->averageCPU, 0);
    EXPECT_NE(find(sources, "400-250"), nullptr) << "started before the process that has 300 now";

    // Lists that contradict themselves: circles, own parents, a pid listed twice.
    follow(activity, 11, 14, [](int second) -> List {
        ProcessSample first = process(500, 501, second), second_ = process(501, 500, second);
        first.started = second_.started = 500;
        return {first, second_, process(502, 502, second), process(503, 1, second),
                process(503, 1, second)};
    });
    sources = activity.sources();
    std::set<std::string> ids;
    for (const auto& source : sources) {
        EXPECT_TRUE(ids.insert(source.id).second) << source.id;
        EXPECT_LE(source.currentCPU, 201) << "nothing is counted twice";
    }
}

TEST(ProcessActivityTest, InventsNothingForProcessesThatComeGoOrAreReplaced) {
    ProcessActivity activity;
    const auto base = [](int second) { return process(100, 1, second); };
    follow(activity, 0, 10, [&](int second) -> List {
        // A helper that had used an hour before it could be read.
        return second < 5 ? List{base(second)}
                          : List{base(second), process(101, 100, 3600 + second)};
    });
    EXPECT_NEAR(find(activity.sources(), "100-100")->averageCPU, 100 * 15 / 10.0, 1e-6);

    // It ends: what it used stays counted, and counts for nothing now.
    follow(activity, 11, 12, [&](int second) -> List { return {base(second)}; });
    EXPECT_NEAR(find(activity.sources(), "100-100")->averageCPU, 100 * 17 / 12.0, 1e-6);
    EXPECT_NEAR(find(activity.sources(), "100-100")->currentCPU, 100, 1e-6);

    // Another process gets the application's pid: another application.
    follow(activity, 13, 14, [](int second) -> List {
        ProcessSample other = process(100, 1, 5000 + second);
        other.started = 900;
        return {other};
    });
    const auto sources = activity.sources();
    ASSERT_EQ(sources.size(), 1);
    EXPECT_EQ(sources[0].id, "100-900");
    EXPECT_NEAR(sources[0].averageCPU, 100 * 1 / 14.0, 1e-6);

    follow(activity, 15, 15, [](int) -> List { return {}; });
    EXPECT_THAT(activity.sources(), IsEmpty());
}

TEST(ProcessActivityTest, CountsNothingForAnIntervalInWhichACounterWentBack) {
    ProcessActivity activity;
    const auto at = [](int second) -> List {
        auto jumpy = process(100, 1, second == 5 ? 1 : second, second == 8 ? 0 : second);
        jumpy.diskReadBytes += static_cast<std::uint64_t>(second * kMiB);  // this one never does
        return {jumpy};
    };
    follow(activity, 0, 5, at);
    EXPECT_THAT(activity.sources(), IsEmpty()) << "nothing is known of its last second";
    follow(activity, 6, 8, at);
    auto source = activity.sources().at(0);
    // 4 s before the reset, then from 1 to 6 s of CPU time, then two plain seconds.
    EXPECT_NEAR(source.averageCPU, 100 * (4 + 5 + 2) / 8.0, 1e-6);
    EXPECT_EQ(source.currentDiskRate, std::nullopt);
    EXPECT_EQ(source.diskSeconds, 7);
    EXPECT_NEAR(*source.averageDiskRate, 2 * kMiB, 1);
    follow(activity, 9, 10, at);
    EXPECT_EQ(activity.sources().at(0).diskSeconds, 9);
}

TEST(ProcessActivityTest, BeginsAnewAfterAGapOrAClockSetBack) {
    for (const double next : {60 + 15.001, 60.0, 30.0}) {
        ProcessActivity activity;
        const auto at = [](int second) -> List { return {process(100, 1, second, 9 * second)}; };
        follow(activity, 0, 60, at);
        activity.add(kStart + next, List{process(100, 1, 90, 900)});
        EXPECT_EQ(activity.windowSeconds(), 0) << next;
        EXPECT_THAT(activity.sources(), IsEmpty()) << next;
        activity.add(kStart + next + 2, List{process(100, 1, 91, 900)});
        EXPECT_EQ(activity.windowSeconds(), 2);
        EXPECT_NEAR(activity.sources().at(0).averageCPU, 50, 1e-6);
        EXPECT_EQ(activity.sources().at(0).diskSeconds, 2);
    }
    ProcessActivity activity;
    activity.add(kStart, List{process(100, 1, 0)});
    activity.add(kStart + 15, List{process(100, 1, 15)});
    EXPECT_EQ(activity.windowSeconds(), 15) << "15 s are no gap yet";
}

TEST(ProcessActivityTest, FeedsTheEngineUntilItNamesTheBusyApplication) {
    ProcessActivity activity;
    DiagnosticEngine engine;
    for (int second = 0; second <= 60; ++second) {
        activity.add(kStart + second,
                     List{process(100, 1, second * 0.1), process(101, 100, second * 1.5)});
        auto input = unremarkable(second);
        input.sources = activity.sources();
        input.processDate = activity.date();
        input.processSeconds = activity.windowSeconds();
        const auto report = engine.evaluate(input);
        EXPECT_EQ(report.findings.size(), second < 45 ? 0 : 1) << second;
        if (second >= 45) {
            EXPECT_EQ(report.findings[0].id, "cpu:100-100");
            EXPECT_NEAR(*report.findings[0].value, 160, 1e-6);
        }
    }
}

// Random lists: no application used more than its processes could have, none more than once.
TEST(ProcessActivityTest, NeverCountsMoreThanWasUsed) {
    for (unsigned seed = 0; seed < 50; ++seed) {
        std::mt19937 random(seed);
        ProcessActivity activity;
        std::vector<ProcessSample> alive;
        std::int32_t nextPid = 2;
        for (int second = 0; second < 150; ++second) {
            std::erase_if(alive, [&](const auto&) { return random() % 30 == 0; });
            while (alive.size() < 20) {
                const std::int32_t parent =
                    alive.empty() || random() % 3 == 0 ? 1 : alive[random() % alive.size()].pid;
                alive.push_back(process(nextPid++, parent, static_cast<double>(random() % 1000)));
            }
            for (auto& one : alive) {
                one.cpuNanoseconds += random() % 1000000000;  // at most one core each
                if (random() % 50 == 0) {
                    one.cpuNanoseconds = 0;
                }
            }
            std::ranges::shuffle(alive, random);
            activity.add(kStart + second, alive);
            double current = 0;
            for (const auto& source : activity.sources()) {
                current += source.currentCPU;
                EXPECT_GE(source.averageCPU, 0);
                EXPECT_LE(source.averageCPU, 100.0 * 20);
            }
            EXPECT_LE(current, 100.0 * 20);
            ASSERT_FALSE(HasFailure()) << "seed " << seed << ", second " << second;
        }
    }
}

}  // namespace
}  // namespace ferovane
