#include "core/fan/curve_lease.h"

#include <gtest/gtest.h>

#include <limits>
#include <sstream>

#include "tests/fan/lease_world.h"
#include "tests/support/failure_text.h"

namespace ferovane {
namespace {

using testing::celsiusFor;
using testing::failureOf;
using testing::LeaseWorld;
using testing::steepCurve;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr const char* kChanged = "风扇控制被改变或无法读取，已停止曲线";
constexpr const char* kNoSensor = "控制温度传感器不可用，已停止曲线并恢复系统自动";

// "5200 5040": the first fan's target after each round.
std::string targetsOf(const LeaseWorld& world) {
    std::ostringstream text;
    for (const FanControlProgress& progress : world.updates) {
        text << (text.tellp() > 0 ? " " : "") << progress.targets.at(0).rpm;
    }
    return text.str();
}

TEST(CurveLeaseTest, DrivesEveryFanWithinItsOwnRangeAndHandsItBack) {
    LeaseWorld world;
    world.setCelsius(celsiusFor(50));
    EXPECT_EQ(failureOf([&] { world.follow(steepCurve(), 3); }), "");
    EXPECT_EQ(world.mac.journal(), "F0Md=1 F0Tg=4000 F1Md=1 F1Tg=4100 F0Md=0 F1Md=0");
    EXPECT_EQ(world.events, "update applied wait update wait update wait");
    EXPECT_EQ(world.updates.front(), (FanControlProgress{1003, {{0, 4000}, {1, 4100}}, false}));
}

TEST(CurveLeaseTest, HalfAnHourOfRounds) {
    LeaseWorld world;
    EXPECT_EQ(failureOf([&] { world.follow(FanCurve::quiet(), 1800); }), "");
    EXPECT_EQ(world.updates.size(), 1800u);
    EXPECT_TRUE(world.fans.allAutomatic());
}

TEST(CurveLeaseTest, ARiseIsTakenAtOnceAndAFallIsSpread) {
    LeaseWorld world(1);
    world.setCelsius(celsiusFor(20));
    world.clock.in(1, [&] { world.setCelsius(celsiusFor(80)); });
    world.clock.in(2, [&] { world.setCelsius(celsiusFor(40)); });
    EXPECT_EQ(failureOf([&] { world.follow(steepCurve(), 13); }), "");
    EXPECT_EQ(targetsOf(world), "2800 5200 5040 4880 4720 4560 4400 4240 4080 3920 3760 3600 3600");
}

TEST(CurveLeaseTest, WritesAChangeOfThirtyRpmAndNoSmallerOne) {
    const struct {
        double maximum, secondPercent;
        const char* journal;
    } cases[] = {
        {5000, 61, "F0Md=1 F0Tg=3800 F0Tg=3830 F0Md=0"},
        {5000, 59, "F0Md=1 F0Tg=3800 F0Tg=3770 F0Md=0"},
        {4900, 61, "F0Md=1 F0Tg=3740 F0Md=0"},
        {4900, 59, "F0Md=1 F0Tg=3740 F0Md=0"},
    };
    for (const auto& c : cases) {
        LeaseWorld world(1);
        world.mac["F0Mx"] = c.maximum;
        world.setCelsius(celsiusFor(60));
        world.clock.in(1, [&] { world.setCelsius(celsiusFor(c.secondPercent)); });
        EXPECT_EQ(failureOf([&] { world.follow(steepCurve(), 2); }), "");
        EXPECT_EQ(world.mac.journal(), c.journal) << c.maximum << " " << c.secondPercent;
    }
}

TEST(CurveLeaseTest, SmallChangesAddUpAgainstTheLastWrittenTarget) {
    LeaseWorld world(1);
    world.mac["F0Mx"] = 4900;
    for (int round = 1; round < 5; ++round) {
        world.clock.in(round, [&world, round] { world.setCelsius(celsiusFor(60 + round)); });
    }
    world.setCelsius(celsiusFor(60));
    EXPECT_EQ(failureOf([&] { world.follow(steepCurve(), 5); }), "");
    EXPECT_EQ(world.mac.journal(), "F0Md=1 F0Tg=3740 F0Tg=3798 F0Tg=3856 F0Md=0");
}

TEST(CurveLeaseTest, HeatOverrulesTheCurve) {
    LeaseWorld world(1);
    world.clock.in(1, [&] { world.snapshot.sensors.push_back({"TH0A", "", 75}); });
    world.clock.in(2, [&] { world.setCelsius(celsiusFor(40)); });
    EXPECT_EQ(failureOf([&] { world.follow(FanCurve::manual(40), 3); }), "");
    EXPECT_EQ(targetsOf(world), "3600 6000 5840");
    EXPECT_FALSE(world.updates.at(0).protectionActive);
    EXPECT_TRUE(world.updates.at(1).protectionActive);
    EXPECT_FALSE(world.updates.at(2).protectionActive);
}

TEST(CurveLeaseTest, EndsWhenATemperatureItNeedsIsMissing) {
    const SensorReading cpu{"TC0P", "", 50}, gpu{"TG0P", "", 50};
    const struct {
        CurveSensor sensor;
        std::vector<SensorReading> sensors;
        const char* message;
    } cases[] = {
        {CurveSensor::cpu, {cpu}, ""},
        {CurveSensor::cpu, {gpu}, kNoSensor},
        {CurveSensor::gpu, {cpu, gpu}, ""},
        {CurveSensor::gpu, {cpu}, kNoSensor},
        {CurveSensor::gpu, {gpu}, kNoSensor},  // the processor's is needed in any case
        {CurveSensor::hottest, {cpu}, ""},
        {CurveSensor::hottest, {}, kNoSensor},
        {CurveSensor::cpu, {{"TC0P", "", kNaN}}, kNoSensor},
        {CurveSensor::cpu, {{"TC0P", "", std::numeric_limits<double>::infinity()}}, kNoSensor},
    };
    FanCurve curve = steepCurve();
    for (const auto& c : cases) {
        curve.sensor = c.sensor;
        for (const int round : {0, 1, 7}) {
            LeaseWorld world;
            world.snapshot.sensors = {cpu, gpu};
            const auto change = [&] { world.snapshot.sensors = c.sensors; };
            if (round == 0) {
                change();
            } else {
                world.clock.in(round, change);
            }
            EXPECT_EQ(failureOf([&] { world.follow(curve, 10); }), c.message)
                << &c - cases << " round " << round;
            EXPECT_EQ(world.updates.size(), *c.message == '\0' ? 10u : unsigned(round));
            EXPECT_TRUE(world.fans.allAutomatic());
            EXPECT_FALSE(world.mac.untouched());
        }
    }
}

TEST(CurveLeaseTest, EndsWhenAFanIsNoLongerAsItWasLeft) {
    const struct {
        const char* name;
        std::function<void(LeaseWorld&)> change;
        const char* message;
    } cases[] = {
        {"drift below 3", [](LeaseWorld& w) { w.mac["F1Tg"] += 2.9; }, ""},
        {"drift by 3", [](LeaseWorld& w) { w.mac["F1Tg"] += 3; }, kChanged},
        {"drift by -3", [](LeaseWorld& w) { w.mac["F1Tg"] -= 3; }, kChanged},
        {"target unreadable", [](LeaseWorld& w) { w.mac.keys["F1Tg"].unreadable = true; },
         kChanged},
        {"target no number",
         [](LeaseWorld& w) {
             w.fans.editTarget = [](int, std::optional<double>& rpm) { rpm = kNaN; };
         },
         kChanged},
        {"automatic again", [](LeaseWorld& w) { w.mac["F1Md"] = 3; }, kChanged},
        {"mode unknown", [](LeaseWorld& w) { w.mac["F1Md"] = 2; }, kChanged},
        {"not listed", [](LeaseWorld& w) { w.fans.listed = 1; }, kChanged},
        {"temperature lost as well",
         [](LeaseWorld& w) {
             w.fans.listed = 1;
             w.snapshot.sensors.clear();
         },
         kNoSensor},
    };
    for (const auto& c : cases) {
        LeaseWorld world;
        world.clock.in(5, [&] { c.change(world); });
        EXPECT_EQ(failureOf([&] { world.follow(steepCurve(), 10); }), c.message) << c.name;
        // Nothing is written to a fan after it was found changed, but its hand-back.
        EXPECT_EQ(world.mac.journal(), "F0Md=1 F0Tg=3600 F1Md=1 F1Tg=3680 F0Md=0 F1Md=0") << c.name;
        EXPECT_EQ(world.updates.size(), *c.message == '\0' ? 10u : 5u) << c.name;
    }
}

TEST(CurveLeaseTest, OutOfTimeBeforeTheFirstRoundTouchesNothing) {
    LeaseWorld late;
    late.inCall("now", 2, [&] { late.clock.jump(2); });
    EXPECT_EQ(failureOf([&] { late.follow(steepCurve(), 2); }), "");
    EXPECT_TRUE(late.mac.untouched());
    EXPECT_EQ(late.events, "");

    // Once begun, the first round is run whatever the time.
    LeaseWorld begun;
    begun.inCall("sample", 1, [&] { begun.clock.jump(2); });
    EXPECT_EQ(failureOf([&] { begun.follow(steepCurve(), 2); }), "");
    EXPECT_EQ(begun.events, "update applied wait");

    LeaseWorld tiny;
    EXPECT_EQ(failureOf([&] { tiny.follow(steepCurve(), 1e-300); }), "");
    EXPECT_TRUE(tiny.mac.untouched());
    EXPECT_EQ(tiny.events, "");
}

TEST(CurveLeaseTest, CancellingEndsItWithoutAnErrorInEveryPhase) {
    constexpr const char* kDriven = "F0Md=1 F0Tg=3600 F1Md=1 F1Tg=3680 F0Md=0 F1Md=0";
    const struct {
        const char* call;
        int n;
        const char* journal;
    } cases[] = {
        {"fans", 1, ""},
        {"now", 2, ""},
        {"sample", 1, kDriven},
        {"wait", 1, kDriven},
        {"write F1Md", 1, kDriven},
        {"wait", 9, kDriven},
    };
    for (const auto& c : cases) {
        LeaseWorld world;
        world.inCall(c.call, c.n, [&] { world.stopped = true; });
        EXPECT_EQ(failureOf([&] { world.follow(steepCurve(), 100); }), "");
        EXPECT_EQ(world.mac.journal(), c.journal) << c.call << " " << c.n;
    }
}

TEST(CurveLeaseTest, AClockThatCannotBeTrustedEndsTheLease) {
    for (const double jump : {3600.0, -3600.0, kNaN}) {
        LeaseWorld world;
        world.clock.in(5, [&] { world.clock.jump(jump); });
        EXPECT_EQ(failureOf([&] { world.follow(steepCurve(), 100); }), "") << jump;
        EXPECT_EQ(world.updates.size(), 5u) << jump;
        EXPECT_TRUE(world.fans.allAutomatic()) << jump;
    }
}

TEST(CurveLeaseTest, AFailureIsToldAsItsCauseAndAFailedHandBackAfterANormalEndAsTheResult) {
    LeaseWorld refused;
    refused.mac.keys["F1Md"].unwritable = true;
    EXPECT_EQ(failureOf([&] { refused.follow(steepCurve(), 10); }), "SMC F1Md 写入失败（130）");
    EXPECT_EQ(refused.mac.journal(), "F0Md=1 F0Tg=3600 F0Md=0");
    EXPECT_EQ(refused.events, "");

    LeaseWorld stuck;
    stuck.clock.in(5, [&] { stuck.mac.keys["F0Md"].unwritable = true; });
    EXPECT_EQ(failureOf([&] { stuck.follow(steepCurve(), 10); }),
              "恢复自动风扇失败：SMC F0Md 写入失败（130）");
    EXPECT_TRUE(stuck.fans.isAutomatic(1));
}

}  // namespace
}  // namespace ferovane
