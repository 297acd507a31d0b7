// What both leases check before they touch a fan, side by side where they differ.
#include <gtest/gtest.h>

#include <functional>
#include <limits>

#include "tests/fan/lease_world.h"
#include "tests/support/failure_text.h"

namespace ferovane {
namespace {

using testing::failureOf;
using testing::LeaseWorld;
using testing::steepCurve;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

using Edit = std::function<void(FanReading&)>;

struct Outcome {
    std::string cooling, curve;
};

void expectOutcome(const std::function<void(LeaseWorld&)>& prepare, const Outcome& expected,
                   const char* name) {
    SCOPED_TRACE(name);
    LeaseWorld cooling;
    prepare(cooling);
    EXPECT_EQ(failureOf([&] { cooling.cool(1); }), expected.cooling);
    EXPECT_EQ(cooling.mac.untouched(), !expected.cooling.empty());

    LeaseWorld following;
    prepare(following);
    EXPECT_EQ(failureOf([&] { following.follow(steepCurve(), 1); }), expected.curve);
    EXPECT_EQ(following.mac.untouched(), !expected.curve.empty());
}

const Outcome kAdmitted{"", ""};
const Outcome kNotFree{
    "请先恢复系统自动风扇并退出其他风扇控制软件；也可能是此机型没有可写的风扇接口。",
    "请先恢复系统自动风扇并退出其他控制程序"};
const Outcome kNotRated{"风扇额定转速无法验证，已拒绝控制", "无法验证风扇额定范围"};
const Outcome kNotRatedOrNotKnown{kNotRated.cooling, kNotFree.curve};
const Outcome kNoTarget{"风扇当前目标转速无法验证，已拒绝切换手动模式",
                        "风扇当前目标转速无法验证，已拒绝切换手动模式"};

TEST(LeaseAdmissionTest, OneUnfitFanOfTwoRefusesTheLease) {
    const struct {
        const char* name;
        Edit edit;
        Outcome expected;
    } cases[] = {
        {"fit", [](FanReading&) {}, kAdmitted},
        {"not controllable", [](FanReading& f) { f.controllable = false; }, kNotFree},
        {"manual", [](FanReading& f) { f.manual = true; }, kNotFree},
        {"mode unknown", [](FanReading& f) { f.manual.reset(); }, kNotFree},
        {"minimum unknown", [](FanReading& f) { f.minimum.reset(); }, kNotRatedOrNotKnown},
        {"maximum unknown", [](FanReading& f) { f.maximum.reset(); }, kNotRatedOrNotKnown},
        {"maximum 12000", [](FanReading& f) { f.maximum = 12000; }, kAdmitted},
        {"maximum 12001", [](FanReading& f) { f.maximum = 12001; }, kNotRated},
        {"maximum 0", [](FanReading& f) { f.minimum = f.maximum = 0; }, kNotRated},
        {"maximum NaN", [](FanReading& f) { f.maximum = kNaN; }, kNotRated},
        {"maximum infinite", [](FanReading& f) { f.maximum = kInfinity; }, kNotRated},
        {"minimum NaN", [](FanReading& f) { f.minimum = kNaN; }, kNotRated},
        {"minimum negative", [](FanReading& f) { f.minimum = -1; }, kNotRated},
        {"minimum 0", [](FanReading& f) { f.minimum = 0; }, {"", kNotRated.curve}},
        {"minimum above maximum", [](FanReading& f) { f.minimum = 6201; }, kNotRated},
        {"minimum at maximum and target", [](FanReading& f) { f.maximum = 2000; }, kAdmitted},
        {"target below minimum", [](FanReading& f) { f.minimum = 2000.1; }, kNoTarget},
        {"target above maximum", [](FanReading& f) { f.minimum = f.maximum = 1999; }, kNoTarget},
    };
    for (const auto& c : cases) {
        const auto prepare = [&](LeaseWorld& world) {
            world.fans.editReadings = [&](std::vector<FanReading>& fans) {
                if (world.mac.untouched()) {
                    c.edit(fans.at(1));
                }
            };
        };
        expectOutcome(prepare, c.expected, c.name);
    }
}

TEST(LeaseAdmissionTest, RefusesTargetsThatAreNoSpeed) {
    for (const std::optional<double> told :
         {std::optional<double>(), std::optional(kNaN), std::optional(kInfinity)}) {
        const auto prepare = [&](LeaseWorld& world) {
            world.fans.editTarget = [told](int fan, std::optional<double>& rpm) {
                rpm = fan == 1 ? told : rpm;
            };
        };
        expectOutcome(prepare, kNoTarget, "target");
    }
}

TEST(LeaseAdmissionTest, RefusesAMachineWithoutFans) {
    expectOutcome([](LeaseWorld& world) { world.fans.listed = 0; }, kNotFree, "no fans");
}

TEST(LeaseAdmissionTest, EachCheckLooksAtAllFansBeforeTheNextOne) {
    const auto unfit = [](const Edit& first, const Edit& second) {
        return [=](LeaseWorld& world) {
            world.fans.editReadings = [=](std::vector<FanReading>& fans) {
                first(fans.at(0));
                second(fans.at(1));
            };
        };
    };
    const Edit manual = [](FanReading& f) { f.manual = true; };
    const Edit unrated = [](FanReading& f) { f.maximum = 12001; };
    const Edit offTarget = [](FanReading& f) { f.minimum = 2001; };
    expectOutcome(unfit(unrated, manual), kNotFree, "mode before ratings");
    expectOutcome(unfit(offTarget, unrated), kNotRated, "ratings before targets");
}

TEST(LeaseAdmissionTest, DurationsAreBounded) {
    constexpr const char* kCooling = "散热会话必须在 5 分钟以内";
    constexpr const char* kCurve = "曲线会话最长 30 分钟";
    const struct {
        double duration;
        Outcome expected;
    } cases[] = {
        {300, kAdmitted},           {300.0001, {kCooling, ""}},      {1800, {kCooling, ""}},
        {1801, {kCooling, kCurve}}, {0, {kCooling, kCurve}},         {-1, {kCooling, kCurve}},
        {kNaN, {kCooling, kCurve}}, {kInfinity, {kCooling, kCurve}},
    };
    for (const auto& c : cases) {
        LeaseWorld cooling, following;
        EXPECT_EQ(failureOf([&] { cooling.cool(c.duration); }), c.expected.cooling) << c.duration;
        EXPECT_EQ(failureOf([&] { following.follow(steepCurve(), c.duration); }), c.expected.curve)
            << c.duration;
        // Refused before anything is asked of anybody.
        EXPECT_EQ(cooling.mac.faults.calls == 0, !c.expected.cooling.empty()) << c.duration;
        EXPECT_EQ(following.mac.faults.calls == 0, !c.expected.curve.empty()) << c.duration;
    }
}

TEST(LeaseAdmissionTest, TheCurveIsCheckedBeforeTheDuration) {
    LeaseWorld world;
    EXPECT_EQ(failureOf([&] {
                  world.follow({{{30, 0}}, CurveSensor::cpu}, 0);
              }),
              "曲线需要 2 至 8 个控制点");
    EXPECT_EQ(world.mac.faults.calls, 0);
}

TEST(LeaseAdmissionTest, CancelledBeforehandLooksAtNothing) {
    LeaseWorld world;
    world.stopped = true;
    world.fans.listed = 0;
    world.cool(300);
    world.follow(steepCurve(), 1800);
    EXPECT_EQ(world.mac.faults.calls, 2);
}

}  // namespace
}  // namespace ferovane
