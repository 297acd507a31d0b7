#include "core/fan/apple_silicon_fan_control.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "tests/support/failure_text.h"
#include "tests/support/fake_fan_keys.h"
#include "tests/support/manual_clock.h"

namespace ferovane {
namespace {

using testing::failureOf;
using testing::FakeFanKeys;
using testing::ManualClock;

// Three fans: one with the other spelling of its mode key, one in the second automatic state.
class AppleSiliconFanControlTest : public ::testing::Test {
protected:
    AppleSiliconFanControlTest() {
        mac["F0Md"] = 0;
        mac["F1Md"] = 3;
        mac["F2md"] = 0;
        mac["Ftst"] = 0;
    }

    std::string take(int fan) {
        return failureOf([&] { control.setManual(fan, true); });
    }
    std::string giveBack(int fan) {
        return failureOf([&] { control.setManual(fan, false); });
    }

    FakeFanKeys mac;
    ManualClock clock;
    double retrySeconds = 0.1;
    AppleSiliconFanControl control{
        [this](const std::string& key) { return mac.read(key); },
        [this](const std::string& key, double value) { mac.write(key, value); },
        [this] { clock.advance(retrySeconds); }, [this] { return clock.now(); }};
};

TEST_F(AppleSiliconFanControlTest, ModeKeyIsTheFirstSpellingThatCanBeRead) {
    EXPECT_EQ(control.modeKey(0), "F0Md");
    EXPECT_EQ(control.modeKey(2), "F2md");
    for (const int fan : {-1, 3, 10}) {
        EXPECT_EQ(control.modeKey(fan), std::nullopt) << fan;
        EXPECT_EQ(take(fan), "此风扇没有可识别的 Apple Silicon 模式接口");
        EXPECT_EQ(giveBack(fan), "此风扇没有可识别的 Apple Silicon 模式接口");
    }
}

TEST_F(AppleSiliconFanControlTest, TakesAFanAndGivesItBackInTheModeItHad) {
    EXPECT_EQ(take(1), "");
    EXPECT_EQ(take(2), "");
    EXPECT_EQ(giveBack(1), "");
    EXPECT_EQ(giveBack(2), "");
    EXPECT_EQ(giveBack(2), "");
    EXPECT_EQ(mac.journal(), "F1Md=1 F2md=1 F1Md=3 F2md=0 F2md=0");
}

TEST_F(AppleSiliconFanControlTest, RefusesAFanThatIsSomebodyElsesBeforeWriting) {
    constexpr const char* kNotAutomatic = "风扇未处于系统自动，请先退出其他风扇控制程序";
    for (const double mode : {1.0, 2.0, -1.0, std::numeric_limits<double>::quiet_NaN()}) {
        mac["F0Md"] = mode;
        EXPECT_EQ(take(0), kNotAutomatic) << mode;
    }
    mac["F0Md"] = 0;
    for (const double unlock : {1.0, -2.0, std::numeric_limits<double>::quiet_NaN()}) {
        mac["Ftst"] = unlock;
        EXPECT_EQ(take(0), "风扇控制交接已被占用，请先恢复系统自动") << unlock;
    }
    EXPECT_TRUE(mac.untouched());
    mac["Ftst"] = -0.0;
    EXPECT_EQ(take(0), "");
}

TEST_F(AppleSiliconFanControlTest, AnUnreadableUnlockKeyDoesNotStandInTheWay) {
    mac.keys.erase("Ftst");
    EXPECT_EQ(take(0), "");
    EXPECT_EQ(giveBack(0), "");
    EXPECT_EQ(mac.journal(), "F0Md=1 F0Md=0");
}

TEST_F(AppleSiliconFanControlTest, UnlocksOnceAndTheLastFanLocksAgain) {
    mac.locked = true;
    mac.refusalsAfterUnlock = 3;
    EXPECT_EQ(take(0), "");
    EXPECT_NEAR(clock.now(), 1000.4, 1e-6);  // three refusals and a success, a pause before each
    mac.refusalsAfterUnlock = 1;
    EXPECT_EQ(take(1), "");
    EXPECT_EQ(giveBack(0), "");
    EXPECT_EQ(giveBack(1), "");
    EXPECT_EQ(mac.journal(), "Ftst=1 F0Md=1 F1Md=1 F0Md=0 F1Md=3 Ftst=0");
    // Locked again, so the next hand-over starts from the beginning.
    EXPECT_EQ(take(0), "");
    EXPECT_EQ(mac.journal(), "Ftst=1 F0Md=1 F1Md=1 F0Md=0 F1Md=3 Ftst=0 Ftst=1 F0Md=1");
}

TEST_F(AppleSiliconFanControlTest, UsesNobodyElsesUnlock) {
    EXPECT_EQ(take(1), "");
    mac["Ftst"] = 1;  // another program, after this one had taken its first fan
    mac.keys["F0Md"].unwritable = true;
    EXPECT_EQ(take(0), "SMC F0Md 写入失败（130）");
    EXPECT_EQ(mac.journal(), "F1Md=1");
    EXPECT_NEAR(clock.now(), 1000, 1e-6);
}

TEST_F(AppleSiliconFanControlTest, AnUnreadableUnlockKeyEndsTheHandOver) {
    mac.locked = true;
    mac.keys["Ftst"].unreadable = true;
    EXPECT_EQ(take(0), "SMC Ftst 读取失败（132）");
    EXPECT_EQ(mac.journal(), "F0Md=0");
}

TEST_F(AppleSiliconFanControlTest, RetriesAtMostFortyRoundsAndFourSeconds) {
    const struct {
        double retrySeconds;
        int rounds;
    } cases[] = {{0.125, 32}, {1.0, 4}, {5.0, 1}, {0.01, 40}, {0.05, 40}};
    for (const auto& c : cases) {
        mac.locked = true;
        mac.refusalsAfterUnlock = 1000;
        retrySeconds = c.retrySeconds;
        const double start = clock.now();
        EXPECT_EQ(take(0), "SMC F0Md 写入失败（130）");
        EXPECT_EQ(1000 - mac.refusalsAfterUnlock, c.rounds) << c.retrySeconds;
        EXPECT_NEAR(clock.now() - start, c.rounds * c.retrySeconds, 1e-6);
        EXPECT_EQ(mac["Ftst"], 0);
    }
}

TEST_F(AppleSiliconFanControlTest, AClockThatIsNoNumberEndsTheRetries) {
    mac.locked = true;
    int waits = 0;
    AppleSiliconFanControl blind(
        [this](const std::string& key) { return mac.read(key); },
        [this](const std::string& key, double value) { mac.write(key, value); }, [&] { ++waits; },
        [] { return std::numeric_limits<double>::quiet_NaN(); });
    EXPECT_EQ(failureOf([&] { blind.setManual(0, true); }), "SMC F0Md 写入失败（130）");
    EXPECT_EQ(waits, 0);
    EXPECT_EQ(mac["Ftst"], 0);
}

TEST_F(AppleSiliconFanControlTest, AnUnlockKeyThatCannotBeWrittenLeavesTheFanRestored) {
    mac.locked = true;
    mac.keys["Ftst"].unwritable = true;
    EXPECT_EQ(take(0), "SMC Ftst 写入失败（130）");
    EXPECT_EQ(mac.journal(), "F0Md=0");
    // Nothing is left over that would refuse the next attempt or keep the fan from being restored.
    EXPECT_EQ(giveBack(0), "");
    EXPECT_EQ(take(0), "SMC Ftst 写入失败（130）");
}

TEST_F(AppleSiliconFanControlTest, AnUnlockThatArrivedUnconfirmedIsUndone) {
    mac.locked = true;
    mac.keys["Ftst"].unconfirmed = true;
    EXPECT_EQ(take(0), "SMC Ftst 回读不一致");
    EXPECT_EQ(mac.journal(), "Ftst=1 F0Md=0 Ftst=0");
}

TEST_F(AppleSiliconFanControlTest, ConfirmationOverrulesAWriteThatSaidItFailed) {
    EXPECT_EQ(take(0), "");
    mac.keys["F0Md"].unconfirmed = true;
    EXPECT_EQ(giveBack(0), "");
    EXPECT_EQ(mac["F0Md"], 0);
}

TEST_F(AppleSiliconFanControlTest, AFanThatIsNotConfirmedStaysHeldAndCanBeTriedAgain) {
    EXPECT_EQ(take(1), "");
    mac.keys["F1Md"].unwritable = true;
    EXPECT_EQ(giveBack(1), "SMC F1Md 写入失败（130）");
    mac.keys["F1Md"].unwritable = false;
    mac.keys["F1Md"].unreadable = true;
    EXPECT_EQ(giveBack(1),
              "SMC F1Md 读取失败（132）");  // written blind, by the key it was taken by
    EXPECT_EQ(mac["F1Md"], 3);
    mac.keys["F1Md"].unreadable = false;
    mac["Ftst"] = 1;  // another program's
    EXPECT_EQ(giveBack(1), "未能确认风扇恢复系统自动");
    mac["Ftst"] = 0;
    EXPECT_EQ(giveBack(1), "");
    EXPECT_EQ(mac.journal(), "F1Md=1 F1Md=3 F1Md=3 F1Md=3");
}

TEST_F(AppleSiliconFanControlTest, AFailedLockStaysOwedUntilItSucceeds) {
    mac.locked = true;
    EXPECT_EQ(take(0), "");
    mac.keys["Ftst"].unwritable = true;
    EXPECT_EQ(giveBack(0), "SMC Ftst 写入失败（130）");
    mac.keys["Ftst"].unreadable = true;  // what cannot be read does not confirm it either
    EXPECT_EQ(giveBack(0), "SMC Ftst 写入失败（130）");
    mac.keys["Ftst"].unwritable = mac.keys["Ftst"].unreadable = false;
    EXPECT_EQ(giveBack(0), "");
    EXPECT_EQ(mac["Ftst"], 0);
}

TEST_F(AppleSiliconFanControlTest, AFailedTakeSaysWhenItCouldNotGiveTheFanBack) {
    mac.keys["F0Md"].unconfirmed = true;
    mac.keys["Ftst"].unreadable = true;
    mac["F1Md"] = 0;
    EXPECT_EQ(take(1), "");
    // The mode arrives, its confirmation and then the restoring write do not.
    mac.faults.strikeAt = mac.faults.calls + 6;
    mac.faults.strike = [&](const std::string& call) {
        EXPECT_EQ(call, "write F0Md");
        throw ScopeError("断电");
    };
    EXPECT_EQ(take(0), "SMC Ftst 读取失败（132）；恢复自动风扇失败：断电");
    EXPECT_EQ(mac["F0Md"], 1);
    EXPECT_EQ(giveBack(0), "");
    EXPECT_EQ(mac["F0Md"], 0);
}

}  // namespace
}  // namespace ferovane
