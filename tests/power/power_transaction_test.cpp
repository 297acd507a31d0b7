// Applying plans and undoing them, as stories on a machine that keeps its state.
#include "core/power/power_transaction.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/power/fake_power_access.h"
#include "tests/support/failure_text.h"

namespace ferovane {
namespace {

using ::testing::ElementsAre;
using testing::failureOf;
using testing::FakePowerAccess;
using ::testing::IsEmpty;
using testing::laptopSettings;
using testing::PowerFault;
using enum PowerSetting;
constexpr auto kAc = PowerSource::ac;
constexpr auto kBattery = PowerSource::battery;

constexpr double kNoon = 700000000;

struct PowerTransactionTest : ::testing::Test {
    PowerTransactionTest() { mac.settings = laptopSettings(); }

    PowerOutcome apply() {
        return PowerTransaction::apply(plan, mac, [this] { return Date{clock++}; });
    }
    std::string applyFailure() {
        return failureOf([this] { apply(); });
    }

    FakePowerAccess mac;
    PowerOptimizationPlan plan{kBattery, PowerScope::current, true, 5, 10, true, std::nullopt};
    double clock = kNoon;
};

TEST_F(PowerTransactionTest, AppliesInOrderAndRecordsWhatItChanged) {
    mac.settings.profiles[kBattery][displaySleep] = 5;
    const auto outcome = apply();

    EXPECT_THAT(mac.writes, ElementsAre("battery:lowpowermode=1", "battery:sleep=10", "turbo=1"));
    EXPECT_TRUE(outcome.changed);
    EXPECT_EQ(outcome.skipped, 1);
    EXPECT_EQ(outcome.startedAt, Date{kNoon});
    ASSERT_TRUE(outcome.backup);
    EXPECT_EQ(outcome.backup->edits, (std::vector<PowerEdit>{{kBattery, lowPowerMode, 0, 1},
                                                             {kBattery, systemSleep, 30, 10}}));
    EXPECT_EQ(outcome.backup->turboBefore, 0);
    EXPECT_EQ(outcome.backup->date, Date{kNoon + 1});
    EXPECT_NE(outcome.backup->id, Uuid{});
    outcome.backup->validate();
}

TEST_F(PowerTransactionTest, ChangesNothingWhenEverythingIsAsWanted) {
    mac.settings.profiles[kBattery] = {{lowPowerMode, 1}, {displaySleep, 5}, {systemSleep, 10}};
    mac.turbo = 1;
    const auto outcome = apply();

    EXPECT_THAT(mac.writes, IsEmpty());
    EXPECT_FALSE(outcome.changed);
    EXPECT_EQ(outcome.skipped, 3);
    ASSERT_TRUE(outcome.backup);
    EXPECT_THAT(outcome.backup->edits, IsEmpty());
    EXPECT_EQ(outcome.backup->turboBefore, std::nullopt);
}

TEST_F(PowerTransactionTest, RefusesBeforeTheFirstWrite) {
    struct Case {
        std::string failure;
        std::function<void()> arrange;
    };
    // Each arrangement keeps what the ones before it spoilt, so the last check that fails is the
    // first in order.
    const std::vector<Case> cases{
        {"睿频状态不可确认", [this] { mac.turbo = 2; }},
        {"睿频状态不可确认", [this] { mac.turbo.reset(); }},
        {"存在阻止休眠的任务，未修改休眠设置", [this] { mac.blockers = true; }},
        {"供电状态已变化，请刷新优化方案", [this] { mac.source = kAc; }},
        {"供电状态已变化，请刷新优化方案", [this] { mac.source.reset(); }},
        {"显示器休眠设置不可读取", [this] { mac.settings.profiles[kBattery].erase(displaySleep); }},
        {"无效的系统休眠时间", [this] { plan.idleMinutes = 2; }},
        {"第1步失败", [this] { mac.failCall(1, PowerFault::refused); }},
    };
    for (const auto& c : cases) {
        c.arrange();
        EXPECT_EQ(applyFailure(), c.failure);
        EXPECT_THAT(mac.writes, IsEmpty()) << c.failure;
    }
}

TEST_F(PowerTransactionTest, AsksOnlyForWhatThePlanTouches) {
    mac.blockers = true;
    mac.turbo.reset();
    plan.idleMinutes.reset();
    plan.disableTurbo = false;
    EXPECT_TRUE(apply().changed);
    EXPECT_THAT(mac.writes, ElementsAre("battery:lowpowermode=1", "battery:displaysleep=5"));
}

// The calls of an apply are: configuration, source, blockers, turbo state, three settings, turbo.
TEST_F(PowerTransactionTest, PutsBackInReverseOrderWhenAWriteIsRefused) {
    mac.failCall(7, PowerFault::refused);
    EXPECT_EQ(applyFailure(), "第7步失败");
    EXPECT_THAT(mac.writes,
                ElementsAre("battery:lowpowermode=1", "battery:displaysleep=5", "battery:sleep=10!",
                            "battery:displaysleep=10", "battery:lowpowermode=0"));
    EXPECT_EQ(mac.settings, laptopSettings());
}

TEST_F(PowerTransactionTest, PutsBackSettingsWhenTurboIsRefused) {
    mac.failCall(8, PowerFault::refused);
    EXPECT_EQ(applyFailure(), "第8步失败");
    EXPECT_EQ(mac.settings, laptopSettings());
    EXPECT_EQ(mac.turbo, 0);
    EXPECT_EQ(mac.writes.back(), "battery:lowpowermode=0");
}

TEST_F(PowerTransactionTest, PutsBackAChangeThatTookEffectUnconfirmed) {
    mac.failCall(5, PowerFault::unconfirmed);
    EXPECT_EQ(applyFailure(), "第5步失败");
    EXPECT_EQ(mac.settings, laptopSettings());

    mac.writes.clear();
    mac.failCall(8, PowerFault::unconfirmed);
    EXPECT_EQ(applyFailure(), "第8步失败");
    EXPECT_EQ(mac.settings, laptopSettings());
    EXPECT_EQ(mac.turbo, 0);
    EXPECT_THAT(mac.writes,
                ElementsAre("battery:lowpowermode=1", "battery:displaysleep=5", "battery:sleep=10",
                            "turbo=1!", "turbo=0", "battery:sleep=30", "battery:displaysleep=10",
                            "battery:lowpowermode=0"));
}

TEST_F(PowerTransactionTest, NamesEveryPutBackThatFailed) {
    mac.failCall(7, PowerFault::refused);
    mac.failCall(9, PowerFault::refused);   // after the reading, call 8
    mac.failCall(10, PowerFault::refused);  // tried although the one before failed
    EXPECT_EQ(applyFailure(), "第7步失败；部分原设置未确认恢复：第9步失败；第10步失败");
}

TEST_F(PowerTransactionTest, PutsBackWithoutAReadingToo) {
    mac.failCall(7, PowerFault::refused);
    mac.failCall(8, PowerFault::refused);
    EXPECT_EQ(applyFailure(), "第7步失败");
    EXPECT_EQ(mac.settings, laptopSettings());
}

TEST_F(PowerTransactionTest, LeavesAForeignValueWhenPuttingBack) {
    mac.failCall(7, PowerFault::refused,
                 [this] { mac.settings.profiles[kBattery][displaySleep] = 60; });
    EXPECT_EQ(applyFailure(), "第7步失败");
    auto expected = laptopSettings();
    expected.profiles[kBattery][displaySleep] = 60;
    EXPECT_EQ(mac.settings, expected);
}

TEST_F(PowerTransactionTest, RestoresFromTheLastEditToTheFirst) {
    const auto backup = *apply().backup;
    mac.writes.clear();
    const auto outcome = PowerTransaction::restore(backup, mac);

    EXPECT_THAT(mac.writes, ElementsAre("battery:sleep=30", "battery:displaysleep=10",
                                        "battery:lowpowermode=0", "turbo=0"));
    EXPECT_EQ(outcome, (PowerOutcome{std::nullopt, true, 0, std::nullopt}));
    EXPECT_EQ(mac.settings, laptopSettings());

    mac.writes.clear();
    EXPECT_EQ(PowerTransaction::restore(backup, mac), PowerOutcome{});
    EXPECT_THAT(mac.writes, IsEmpty());
}

TEST_F(PowerTransactionTest, RestoreKeepsWhatOthersChanged) {
    const auto backup = *apply().backup;
    mac.writes.clear();
    mac.settings.profiles[kBattery][displaySleep] = 60;   // somebody's own choice
    mac.settings.profiles[kBattery][systemSleep] = 30;    // put back by hand
    mac.settings.profiles[kBattery].erase(lowPowerMode);  // not readable any more
    mac.turbo.reset();                                    // nor is this
    const auto outcome = PowerTransaction::restore(backup, mac);

    EXPECT_THAT(mac.writes, IsEmpty());
    EXPECT_EQ(outcome, (PowerOutcome{std::nullopt, false, 3, std::nullopt}));
}

TEST_F(PowerTransactionTest, RestoreStopsAtTheFirstFailureAndCanBeRepeated) {
    const auto backup = *apply().backup;
    mac.writes.clear();
    mac.failCall(3, PowerFault::refused);
    EXPECT_EQ(failureOf([&] { PowerTransaction::restore(backup, mac); }), "第3步失败");
    EXPECT_THAT(mac.writes, ElementsAre("battery:sleep=30", "battery:displaysleep=10!"));

    EXPECT_TRUE(PowerTransaction::restore(backup, mac).changed);
    EXPECT_EQ(mac.settings, laptopSettings());
    EXPECT_EQ(mac.turbo, 0);
}

TEST_F(PowerTransactionTest, RestoreOfTurboDependsOnWhatIsThere) {
    struct Case {
        std::int64_t before;
        std::optional<std::int64_t> current;
        std::vector<std::string> writes;
        std::int64_t skipped;
    };
    const std::vector<Case> cases{
        {0, 1, {"turbo=0"}, 0}, {0, 0, {}, 0}, {0, std::nullopt, {}, 1},
        {1, 1, {"turbo=1"}, 0}, {1, 0, {}, 1},
    };
    for (const auto& c : cases) {
        mac.writes.clear();
        mac.turbo = c.current;
        const auto outcome = PowerTransaction::restore(PowerBackup({}, c.before), mac);
        EXPECT_EQ(mac.writes, c.writes);
        EXPECT_EQ(outcome.changed, !c.writes.empty());
        EXPECT_EQ(outcome.skipped, c.skipped);
    }
}

TEST_F(PowerTransactionTest, RefusesABackupThatNoPlanCouldHaveMade) {
    const std::vector<PowerBackup> backups{
        PowerBackup({{kAc, displaySleep, 10, 300}}, std::nullopt),
        PowerBackup({{kAc, displaySleep, -1, 5}}, std::nullopt),
        PowerBackup({{kAc, lowPowerMode, 2, 1}}, std::nullopt),
        PowerBackup({{kAc, displaySleep, 10, 5}, {kAc, displaySleep, 20, 5}}, std::nullopt),
        PowerBackup({}, 2),
        PowerBackup({}, -1),
    };
    for (const auto& backup : backups) {
        EXPECT_EQ(failureOf([&] { PowerTransaction::restore(backup, mac); }), "恢复记录无效");
    }
    EXPECT_EQ(mac.calls, 0);
}

}  // namespace
}  // namespace ferovane
