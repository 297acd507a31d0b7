#include "core/hardware/smc_verification.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace ferovane {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr std::nullopt_t kNothing = std::nullopt;

// Readings in order, the last one again and again; each wait takes `step` on the clock.
struct Bench {
    std::vector<std::optional<double>> readings;
    double step = SMCVerification::kReadBackPauseSeconds;
    double clock = 1000.0;
    int reads = 0;
    int waits = 0;

    bool waitFor(double target, double timeout) {
        return SMCVerification::waitFor(
            target, timeout, [&] { return clock; },
            [&] {
                const auto index = static_cast<std::size_t>(reads++);
                return readings[std::min(index, readings.size() - 1)];
            },
            [&] {
                ++waits;
                clock += step;
            });
    }
};

TEST(ReadBackTest, NeedsTwoMatchesInARow) {
    struct Case {
        std::string name;
        std::vector<std::optional<double>> readings;
        bool confirmed;
        int reads;
    };
    const Case cases[] = {
        {"matches at once, but never on the first read", {3000}, true, 2},
        {"one match, one miss, two matches", {3000, 2000, 3000, 3000}, true, 4},
        {"a failed read between", {3000, kNothing, 3000, 3000}, true, 4},
        {"NaN between", {3000, kNaN, 3000, 3000}, true, 4},
        {"infinity between", {3000, kInfinity, 3000, 3000}, true, 4},
        {"late", {2000, 2500, 2999.5, 3000.5}, true, 4},
        {"just inside on both sides", {2999.001, 3000.999}, true, 2},
        {"exactly one below", {2999}, false, 41},
        {"exactly one above", {3001}, false, 41},
        {"NaN throughout", {kNaN}, false, 41},
        {"nothing throughout", {kNothing}, false, 41},
    };
    for (const auto& c : cases) {
        Bench bench{c.readings};
        EXPECT_EQ(bench.waitFor(3000, SMCVerification::kReadBackSeconds), c.confirmed) << c.name;
        // Two seconds hold 41 reads 0.05 seconds apart, give or take the clock's rounding.
        EXPECT_NEAR(bench.reads, c.reads, c.confirmed ? 0 : 1) << c.name;
    }
}

TEST(ReadBackTest, AlternatingMatchesNeverCount) {
    Bench bench;
    for (int round = 0; round < 60; ++round) {
        bench.readings.push_back(round % 2 == 0 ? 3000.0 : 0.0);
    }
    EXPECT_FALSE(bench.waitFor(3000, 1e9));
    EXPECT_EQ(bench.reads, 45);
}

TEST(ReadBackTest, EndsByRoundsWhenTheClockStands) {
    Bench bench{{0}, 0.0};
    EXPECT_FALSE(bench.waitFor(3000, 2));
    EXPECT_EQ(bench.reads, 45);
    EXPECT_EQ(bench.waits, 45);
}

TEST(ReadBackTest, EndsByTheClock) {
    // 1 s per wait: reads at 0, 1 and 2 s; the deadline itself still reads but does not wait.
    Bench bench{{0}, 1.0};
    EXPECT_FALSE(bench.waitFor(3000, 2));
    EXPECT_EQ(bench.reads, 3);
    EXPECT_EQ(bench.waits, 2);

    // A machine that slept through the deadline: the second of two matches is never asked for.
    Bench slept{{3000}, 3600.0};
    EXPECT_FALSE(slept.waitFor(3000, 2));
    EXPECT_EQ(slept.reads, 1);

    Bench late{{3000}};
    EXPECT_FALSE(late.waitFor(3000, -0.001)) << "already past the deadline";
    EXPECT_EQ(late.reads, 0);
}

TEST(ManualStateTest, FollowsModeKeyThenMaskThenHandOver) {
    using Number = std::optional<double>;
    struct Case {
        Number local, flags;
        int id;
        Number handoff;
        std::optional<bool> manual;
    };
    const Case cases[] = {
        // The fan's own key decides, whatever the mask says.
        {1, 0, 0, 0, true},
        {1, kNothing, 0, 7, true},
        {0, kNothing, 0, kNothing, false},
        {-0.0, kNothing, 0, kNothing, false},
        {3, 1, 0, kNothing, false},
        {3, 0, 0, 0, false},
        {3, kNothing, 0, 1, kNothing},
        {0, kNothing, 0, kNaN, kNothing},
        {0, kNothing, 0, -0.0, false},
        {2, 0, 0, 0, kNothing},
        {0.5, 0, 0, 0, kNothing},
        {kNaN, 0, 0, 0, kNothing},
        {kNaN, 1, 0, kNothing, kNothing},
        {1, 1, 99, kNothing, true},
        // Without one, the fan's bit does.
        {kNothing, kNothing, 0, kNothing, kNothing},
        {kNothing, 4, 2, kNothing, true},
        {kNothing, 4, 1, kNothing, false},
        {kNothing, 4.9, 2, kNothing, true},
        {kNothing, 0, 1, kNothing, false},
        {kNothing, 65535, 9, kNothing, true},
        {kNothing, 65535, 10, kNothing, kNothing},
        {kNothing, 65535, -1, kNothing, kNothing},
        {kNothing, 65535.5, 0, kNothing, kNothing},
        {kNothing, 70000, 0, kNothing, kNothing},
        {kNothing, -1, 0, kNothing, kNothing},
        {kNothing, kNaN, 0, kNothing, kNothing},
        {kNothing, kInfinity, 0, kNothing, kNothing},
        // With the mask as the hand-over value, another fan's bit makes "automatic" unsure.
        {kNothing, 4, 2, 4, true},
        {kNothing, 4, 1, 4, kNothing},
        {kNothing, 0, 1, 0, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(SMCVerification::manualState(c.local, c.flags, c.id, c.handoff), c.manual)
            << "local " << c.local.value_or(-99) << " flags " << c.flags.value_or(-99) << " id "
            << c.id << " handoff " << c.handoff.value_or(-99);
    }
}

}  // namespace
}  // namespace ferovane
