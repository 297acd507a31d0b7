#include "core/fan/cooling_lease.h"

#include <gtest/gtest.h>

#include <limits>

#include "tests/fan/lease_world.h"
#include "tests/support/failure_text.h"

namespace ferovane {
namespace {

using testing::failureOf;
using testing::LeaseWorld;

constexpr const char* kChanged = "检测到风扇状态改变或无法读取，散热会话已停止";
constexpr const char* kCancelled = "散热会话已取消或超时";
constexpr const char* kCooled = "F0Md=1 F0Tg=6000 F1Md=1 F1Tg=6200 F0Md=0 F1Md=0";

TEST(CoolingLeaseTest, HoldsEveryFanAtItsMaximumAndHandsItBack) {
    LeaseWorld world;
    EXPECT_EQ(failureOf([&] { world.cool(300); }), "");
    EXPECT_EQ(world.mac.journal(), kCooled);
    EXPECT_DOUBLE_EQ(world.clock.now(), 1300);
}

TEST(CoolingLeaseTest, TheOwnerEndsItEarlyWithoutAnError) {
    LeaseWorld world;
    world.clock.in(41, [&] { world.stopped = true; });
    EXPECT_EQ(failureOf([&] { world.cool(300); }), "");
    EXPECT_EQ(world.mac.journal(), kCooled);
    EXPECT_DOUBLE_EQ(world.clock.now(), 1041);
}

TEST(CoolingLeaseTest, EndingWhileFansAreBeingTakenIsAnError) {
    const struct {
        const char* call;
        std::function<void(LeaseWorld&)> act;
        const char* journal;
    } cases[] = {
        {"write F0Tg", [](LeaseWorld& w) { w.stopped = true; }, "F0Md=1 F0Tg=6000 F0Md=0 F1Md=0"},
        {"write F0Tg", [](LeaseWorld& w) { w.clock.jump(300); }, "F0Md=1 F0Tg=6000 F0Md=0 F1Md=0"},
        {"write F0Tg", [](LeaseWorld& w) { w.clock.jump(-1); }, "F0Md=1 F0Tg=6000 F0Md=0 F1Md=0"},
        // Before the first fan, too, every fan is handed back.
        {"now", [](LeaseWorld& w) { w.stopped = true; }, "F0Md=0 F1Md=0"},
    };
    for (const auto& c : cases) {
        LeaseWorld world;
        world.inCall(c.call, 1, [&] { c.act(world); });
        EXPECT_EQ(failureOf([&] { world.cool(300); }), kCancelled) << c.call;
        EXPECT_EQ(world.mac.journal(), c.journal);
    }
}

TEST(CoolingLeaseTest, EndsWhenAFanIsNoLongerAsItWasLeft) {
    const struct {
        const char* name;
        std::function<void(LeaseWorld&)> change;
        const char* message;
    } cases[] = {
        {"drift below 2", [](LeaseWorld& w) { w.mac["F1Tg"] += 1.9; }, ""},
        {"drift by 2", [](LeaseWorld& w) { w.mac["F1Tg"] += 2; }, kChanged},
        {"drift by -2", [](LeaseWorld& w) { w.mac["F1Tg"] -= 2; }, kChanged},
        {"target unreadable", [](LeaseWorld& w) { w.mac.keys["F1Tg"].unreadable = true; },
         kChanged},
        {"target no number",
         [](LeaseWorld& w) {
             w.fans.editTarget = [](int, std::optional<double>& rpm) {
                 rpm = std::numeric_limits<double>::quiet_NaN();
             };
         },
         kChanged},
        {"automatic again", [](LeaseWorld& w) { w.mac["F1Md"] = 0; }, kChanged},
        {"mode unknown", [](LeaseWorld& w) { w.mac["F1Md"] = 2; }, kChanged},
        {"not listed", [](LeaseWorld& w) { w.fans.listed = 1; }, kChanged},
    };
    for (const auto& c : cases) {
        LeaseWorld world;
        world.clock.in(41, [&] { c.change(world); });
        EXPECT_EQ(failureOf([&] { world.cool(300); }), c.message) << c.name;
        EXPECT_EQ(world.mac.journal(), kCooled) << c.name;
        EXPECT_DOUBLE_EQ(world.clock.now(), *c.message != '\0' ? 1041 : 1300) << c.name;
    }
}

TEST(CoolingLeaseTest, AClockThatCannotBeTrustedEndsTheLease) {
    for (const double jump : {3600.0, -3600.0, std::numeric_limits<double>::quiet_NaN()}) {
        LeaseWorld world;
        world.clock.in(41, [&] { world.clock.jump(jump); });
        EXPECT_EQ(failureOf([&] { world.cool(300); }), "") << jump;
        EXPECT_EQ(world.mac.journal(), kCooled) << jump;
    }
}

TEST(CoolingLeaseTest, AFailureIsToldAsItsCauseAndAFailedHandBackAfterANormalEndAsTheResult) {
    LeaseWorld world;
    world.mac.keys["F1Tg"].unwritable = true;
    EXPECT_EQ(failureOf([&] { world.cool(300); }), "SMC F1Tg 写入失败（130）");
    EXPECT_EQ(world.mac.journal(), "F0Md=1 F0Tg=6000 F1Md=1 F0Md=0 F1Md=0");

    LeaseWorld drifted;
    drifted.clock.in(41, [&] {
        drifted.mac["F0Tg"] = 2000;
        drifted.mac.keys["F0Md"].unwritable = true;
    });
    EXPECT_EQ(failureOf([&] { drifted.cool(300); }), kChanged);
    EXPECT_TRUE(drifted.fans.isAutomatic(1));

    LeaseWorld stuck(3);
    stuck.clock.in(41, [&] {
        stuck.stopped = true;
        stuck.mac.keys["F0Md"].unwritable = true;
        stuck.mac.keys["F2Md"].unconfirmed = true;
    });
    EXPECT_EQ(failureOf([&] { stuck.cool(300); }),
              "恢复自动风扇失败：SMC F0Md 写入失败（130）；SMC F2Md 回读不一致");
    EXPECT_TRUE(stuck.fans.isAutomatic(1));

    LeaseWorld unexplained;
    unexplained.clock.in(41, [&] { unexplained.stopped = true; });
    unexplained.inCall("write F0Md", 2, [] { throw "no exception of the standard library"; });
    EXPECT_EQ(failureOf([&] { unexplained.cool(300); }), "恢复自动风扇失败");
    EXPECT_TRUE(unexplained.fans.isAutomatic(1));
}

TEST(CoolingLeaseTest, FansAreKnownByTheirIdAndNotByTheirPlace) {
    LeaseWorld gap(3);
    gap.fans.editReadings = [](std::vector<FanReading>& fans) {
        fans.erase(fans.begin() + 1);
        std::swap(fans.front(), fans.back());
    };
    EXPECT_EQ(failureOf([&] { gap.cool(2); }), "");
    EXPECT_EQ(gap.mac.journal(), "F2Md=1 F2Tg=6400 F0Md=1 F0Tg=6000 F2Md=0 F0Md=0");

    LeaseWorld twice(1);
    twice.fans.editReadings = [](std::vector<FanReading>& fans) { fans.push_back(fans.front()); };
    EXPECT_EQ(failureOf([&] { twice.cool(2); }), "");
    EXPECT_TRUE(twice.fans.allAutomatic());
}

}  // namespace
}  // namespace ferovane
