#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "shim/fv.h"
#include "shim/time_base.h"
#include "simulator/machine/simulated_mac.h"

namespace {

constexpr std::uint64_t kLargest = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint32_t kLargestRatio = std::numeric_limits<std::uint32_t>::max();

TEST(TimeBaseTest, ScalesExactlyAndSaturates) {
    struct Case {
        std::uint64_t ticks;
        std::uint32_t numerator, denominator;
        std::uint64_t nanoseconds;
    };
    const Case cases[] = {
        {0, 125, 3, 0},
        {1, 125, 3, 41},
        {24'000'000, 125, 3, 1'000'000'000},
        {kLargest, 1, 1, kLargest},
        {kLargest, 3, 4, 13835058055282163711u},
        {kLargest, kLargestRatio, kLargestRatio, kLargest},
        {442721857769029238u, 125, 3, 18446744073709551583u},  // the last that fits
        {442721857769029239u, 125, 3, kLargest},
        {kLargest, 125, 3, kLargest},
        {18446744069414584318u, kLargestRatio, kLargestRatio - 1, kLargest},
        // Here only adding the remainder's share goes beyond.
        {18446744069414584319u, kLargestRatio, kLargestRatio - 1, kLargest},
        {7, 0, 5, 0},
        {7, 5, 0, 35},
    };
    for (const Case& item : cases) {
        EXPECT_EQ(ferovane::shim::scaledTicks(item.ticks, item.numerator, item.denominator),
                  item.nanoseconds)
            << item.ticks << " * " << item.numerator << " / " << item.denominator;
    }
}

TEST(ClocksTest, OnlyTheContinuousClockCountsSleep) {
    simulator::SimulatedMac mac = simulator::macWithoutController();
    const auto attached = mac.attach();
    const double continuous = fv_continuous_seconds();
    const double uptime = fv_uptime_seconds();
    mac.advance(2.5);
    EXPECT_NEAR(fv_continuous_seconds() - continuous, 2.5, 1e-6);
    EXPECT_NEAR(fv_uptime_seconds() - uptime, 2.5, 1e-6);
    mac.sleep(3600.0);
    EXPECT_NEAR(fv_continuous_seconds() - continuous, 3602.5, 1e-6);
    EXPECT_NEAR(fv_uptime_seconds() - uptime, 2.5, 1e-6);
}

}  // namespace
