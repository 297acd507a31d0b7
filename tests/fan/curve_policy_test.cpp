#include "core/fan/curve_policy.h"

#include <gtest/gtest.h>

#include <limits>
#include <optional>
#include <vector>

namespace ferovane {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

TEST(CurvePolicyTest, PercentIsThePositionInTheRatedRange) {
    const struct {
        double rpm, minimum, maximum, percent;
    } cases[] = {
        {2000, 2000, 6000, 0}, {3000, 2000, 6000, 25},  {6000, 2000, 6000, 100},
        {100, 2000, 6000, 0},  {9000, 2000, 6000, 100}, {2000, 2000, 2000, 0},
        {5, 9, 1, 0},          {kNaN, 2000, 6000, 0},   {3000, kNaN, 6000, 0},
        {3000, 2000, kNaN, 0}, {3000, 0, kInfinity, 0}, {kInfinity, 2000, 6000, 0},
    };
    for (const auto& c : cases) {
        EXPECT_DOUBLE_EQ(CurvePolicy::percent(c.rpm, c.minimum, c.maximum), c.percent)
            << c.rpm << " in " << c.minimum << ".." << c.maximum;
    }
}

Snapshot snapshotOf(std::vector<SensorReading> sensors, int thermalState = 0) {
    Snapshot snapshot;
    snapshot.sensors = std::move(sensors);
    snapshot.thermalState = thermalState;
    return snapshot;
}

TEST(CurvePolicyTest, HeatOfAnyKindRequiresFullSpeed) {
    const struct {
        Snapshot snapshot;
        bool requires100;
    } cases[] = {
        {snapshotOf({}), false},
        {snapshotOf({{"TC0P", "", 91.9}, {"TG0P", "", 87.9}, {"TH0A", "", 74.9}}), false},
        {snapshotOf({{"TC0P", "", 92}}), true},
        {snapshotOf({{"TG0P", "", 88}}), true},
        {snapshotOf({{"TH0A", "", 75}}), true},
        {snapshotOf({{"TB0T", "", 99}, {"Ts0P", "", 99}}), false},
        {snapshotOf({{"TC0P", "", kNaN}}), false},
        {snapshotOf({}, 1), false},
        {snapshotOf({}, 2), true},
        {snapshotOf({}, 3), true},
        {snapshotOf({}, 4), false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(CurvePolicy::requiresMaximum(c.snapshot), c.requires100) << &c - cases;
    }
}

FanReading fan(std::optional<double> rpm, std::optional<double> minimum,
               std::optional<double> maximum) {
    FanReading reading;
    reading.rpm = rpm;
    reading.minimum = minimum;
    reading.maximum = maximum;
    return reading;
}

TEST(CurvePolicyTest, HotAndSlowNeedsEveryFanToBeKnownSlow) {
    const FanReading slow = fan(2400, 2000, 6000);
    const struct {
        std::vector<FanReading> fans;
        bool slow;
    } cases[] = {
        {{}, false},
        {{slow}, true},
        {{slow, fan(0, 2000, 6000)}, true},
        {{slow, fan(2400.1, 2000, 6000)}, false},
        {{slow, fan(std::nullopt, 2000, 6000)}, false},
        {{slow, fan(2400, std::nullopt, 6000)}, false},
        {{slow, fan(2400, 2000, std::nullopt)}, false},
        {{slow, fan(kNaN, 2000, 6000)}, false},
        {{slow, fan(2400, 2000, kInfinity)}, false},
        {{slow, fan(-1, 2000, 6000)}, false},
        {{slow, fan(0, -1, 6000)}, false},
        {{slow, fan(2000, 2000, 2000)}, false},
    };
    for (const auto& c : cases) {
        Snapshot hot = snapshotOf({{"TC0P", "", 95}});
        hot.fans = c.fans;
        EXPECT_EQ(CurvePolicy::highTemperatureWithLowFanSpeed(hot), c.slow) << &c - cases;
        Snapshot cool = hot;
        cool.sensors[0].celsius = 60;
        EXPECT_FALSE(CurvePolicy::highTemperatureWithLowFanSpeed(cool)) << &c - cases;
    }
}

}  // namespace
}  // namespace ferovane
