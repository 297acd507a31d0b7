// What is told beforehand of that which makes a lease refuse.
#include <gtest/gtest.h>

#include "core/fan/lease_obstacles.h"
#include "tests/support/fan_world.h"

namespace ferovane {
namespace {

using testing::FanWorld;
using testing::kInfinity;
using Kind = LeaseObstacleKind;

constexpr std::nullopt_t kNone = std::nullopt;

// What a curve lease is told to meet. That it then meets it, and what both leases say, are
// fan_rules_test's.
LeaseForecast forecastOf(FanWorld& world, bool appleSilicon = false) {
    const auto number = [&](const std::string& key) { return world[key]; };
    return LeaseObstacles::forecast({world, number, appleSilicon, "锁"}, FanCurve::balanced(),
                                    world.snapshot)[1];
}

TEST(LeaseAdmissionTest, AForecastNamesTheValueThatIsInTheWay) {
    const struct {
        const char* key;
        std::optional<double> value;  // absent: cannot be read
        std::optional<Kind> kind;     // absent: nothing is in the way
        std::optional<double> limit = {};
    } cases[] = {
        {"F1Md", 3, {}},
        {"F1Md", 1, Kind::heldByAnother},
        {"F1Md", 2, Kind::heldByAnother},
        {"F1Md", kNone, Kind::noModeKey},
        {"F1Mx", 12000, {}},
        {"F1Mx", 12001, Kind::ratingOutOfRange, 12000},
        {"F1Mx", 0, Kind::ratingOutOfRange, 0},
        {"F1Mx", kNone, Kind::ratingUnreadable},
        {"F1Mn", 0, Kind::ratingOutOfRange, 0},
        {"F1Mn", 6001, Kind::ratingOutOfRange, 6000},
        {"F1Mn", kNone, Kind::ratingUnreadable},
        {"F1Tg", 1999, Kind::parkedBelowMinimum, 2000},
        {"F1Tg", 6001, Kind::targetAboveMaximum, 6000},
        {"F1Tg", kNone, Kind::targetUnreadable},
    };
    for (const auto& [key, value, kind, limit] : cases) {
        FanWorld world;
        world[key] = value;
        const LeaseForecast forecast = forecastOf(world);
        std::vector<LeaseObstacle> expected;
        if (kind) {
            expected = {{*kind, 1, key, value, limit, forecast.message.value_or("none")}};
        }
        EXPECT_EQ(forecast.obstacles, expected) << key << " " << value.value_or(-9);
    }
}

TEST(LeaseAdmissionTest, AForecastKnowsWhatNoRatingTells) {
    FanWorld world;
    world.unlock = 1;
    EXPECT_EQ(forecastOf(world, true).obstacles.at(1).kind, Kind::handOverOccupied);
    world.unlock = 0;
    EXPECT_FALSE(forecastOf(world, true).certain);
    EXPECT_EQ(forecastOf(world, true).obstacles.at(1),
              (LeaseObstacle{Kind::handOverLocked, 1, "Ftst", 0, kNone, "锁"}));
    world.setCelsius(kInfinity);
    EXPECT_EQ(forecastOf(world).obstacles.at(0).kind, Kind::noControlTemperature);
    world.fan[0].controllable = false;
    EXPECT_EQ(forecastOf(world).obstacles.at(0).kind, Kind::notControllable);
    world.fan[0].target.reset();
    EXPECT_EQ(forecastOf(world).obstacles.at(0).kind, Kind::targetUnreadable);
    world.fan.clear();
    EXPECT_EQ(forecastOf(world).obstacles.at(0).kind, Kind::noFans);
}

}  // namespace
}  // namespace ferovane
