// What both leases refuse before they touch a fan, and what is told of it beforehand.
#include <gtest/gtest.h>

#include "core/fan/lease_obstacles.h"
#include "tests/support/failure_text.h"
#include "tests/support/fan_world.h"

namespace ferovane {
namespace {

using testing::FanWorld;
using testing::kInfinity;
using Kind = LeaseObstacleKind;

constexpr std::nullopt_t kNone = std::nullopt;

struct Texts {
    const char *cooling = "", *curve = "";
};
constexpr Texts kNotFree{
    "请先恢复系统自动风扇并退出其他风扇控制软件；也可能是此机型没有可写的风扇接口。",
    "请先恢复系统自动风扇并退出其他控制程序"};
constexpr Texts kNotRated{"风扇额定转速无法验证，已拒绝控制", "无法验证风扇额定范围"};
constexpr Texts kNotKnown{kNotRated.cooling, kNotFree.curve};
constexpr Texts kNoTarget{"风扇当前目标转速无法验证，已拒绝切换手动模式",
                          "风扇当前目标转速无法验证，已拒绝切换手动模式"};

LeaseForecast forecastOf(FanWorld& world, LeaseKind lease, bool appleSilicon = false) {
    const auto number = [&](const std::string& key) { return world[key]; };
    return LeaseObstacles::forecast({world, number, appleSilicon, "锁"}, FanCurve::balanced(),
                                    world.snapshot)[lease == LeaseKind::cooling ? 0 : 1];
}

TEST(LeaseAdmissionTest, OneUnfitFanOfTwoRefusesTheLease) {
    const struct {
        const char* key;
        std::optional<double> value;  // absent: cannot be read
        Texts texts;
        Kind kind = {};  // what the curve lease is told to meet
        std::optional<double> limit = {};
    } cases[] = {
        {"F1Md", 3, {}},
        {"F1Md", 1, kNotFree, Kind::heldByAnother},
        {"F1Md", 2, kNotFree, Kind::heldByAnother},
        {"F1Md", kNone, kNotFree, Kind::noModeKey},
        {"F1Mx", 2000, {}},
        {"F1Mx", 12000, {}},
        {"F1Mx", 12001, kNotRated, Kind::ratingOutOfRange, 12000},
        {"F1Mx", 0, kNotRated, Kind::ratingOutOfRange, 0},
        {"F1Mx", kNone, kNotKnown, Kind::ratingUnreadable},
        {"F1Mn", -1, kNotRated, Kind::ratingOutOfRange, 0},
        {"F1Mn", 0, {"", kNotRated.curve}, Kind::ratingOutOfRange, 0},
        {"F1Mn", 6001, kNotRated, Kind::ratingOutOfRange, 6000},
        {"F1Mn", kNone, kNotKnown, Kind::ratingUnreadable},
        {"F1Tg", 1999, kNoTarget, Kind::parkedBelowMinimum, 2000},
        {"F1Tg", 6001, kNoTarget, Kind::targetAboveMaximum, 6000},
        {"F1Tg", kNone, kNoTarget, Kind::targetUnreadable},
    };
    for (const auto& c : cases) {
        for (const LeaseKind lease : {LeaseKind::cooling, LeaseKind::curve}) {
            FanWorld world;
            world[c.key] = c.value;
            const LeaseForecast forecast = forecastOf(world, lease);
            const bool cooling = lease == LeaseKind::cooling;
            const std::string text = cooling ? c.texts.cooling : c.texts.curve;
            const std::string told = testing::failureOf(
                [&] { cooling ? world.cool(1) : world.follow(FanCurve::balanced(), 1); });
            EXPECT_EQ(told, text) << c.key << " " << c.value.value_or(-9);
            EXPECT_EQ(world.writes.empty(), !text.empty());
            EXPECT_EQ(forecast.message.value_or(""), text);
            if (!cooling && !text.empty()) {
                EXPECT_EQ(forecast.obstacles,
                          (std::vector{LeaseObstacle{c.kind, 1, c.key, c.value, c.limit, text}}))
                    << c.key << " " << title(forecast.obstacles[0].kind);
            }
        }
    }
}

TEST(LeaseAdmissionTest, AForecastKnowsWhatNoRatingTells) {
    constexpr LeaseKind kCurve = LeaseKind::curve;
    FanWorld world;
    world.unlock = 1;
    EXPECT_EQ(forecastOf(world, kCurve, true).obstacles.at(1).kind, Kind::handOverOccupied);
    world.unlock = 0;
    EXPECT_FALSE(forecastOf(world, kCurve, true).certain);
    EXPECT_EQ(forecastOf(world, kCurve, true).obstacles.at(1),
              (LeaseObstacle{Kind::handOverLocked, 1, "Ftst", 0, kNone, "锁"}));
    world.setCelsius(kInfinity);
    EXPECT_EQ(forecastOf(world, kCurve).obstacles.at(0).kind, Kind::noControlTemperature);
    world.fan[0].controllable = false;
    EXPECT_EQ(forecastOf(world, kCurve).obstacles.at(0).kind, Kind::notControllable);
    world.fan[0].target.reset();
    EXPECT_EQ(forecastOf(world, kCurve).obstacles.at(0).kind, Kind::targetUnreadable);
    world.fan.clear();
    EXPECT_EQ(forecastOf(world, kCurve).obstacles.at(0).kind, Kind::noFans);
    EXPECT_EQ(forecastOf(world, kCurve).message, kNotFree.curve);
}

}  // namespace
}  // namespace ferovane
