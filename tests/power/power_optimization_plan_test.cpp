// Plans, and what follows from them.
#include "core/power/power_optimization_plan.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/power/fake_power_access.h"
#include "tests/support/failure_text.h"

namespace ferovane {
namespace {

using testing::failureOf;
using testing::laptopSettings;
using enum PowerSetting;
constexpr auto kAc = PowerSource::ac;
constexpr auto kBattery = PowerSource::battery;

PowerOptimizationPlan fullPlan(PowerSource source, PowerScope scope) {
    return {source, scope, true, 5, 10, true, std::nullopt};
}

TEST(PowerOptimizationPlanTest, OffersFixedChoicesOnly) {
    for (std::int64_t minutes = -1; minutes <= 20; ++minutes) {
        const PowerOptimizationPlan display{.displayMinutes = minutes};
        const bool displayChoice = minutes == 2 || minutes == 5 || minutes == 10;
        EXPECT_EQ(failureOf([&] { display.validate(); }),
                  displayChoice ? "" : "无效的显示器休眠时间")
            << minutes;
        const PowerOptimizationPlan idle{.idleMinutes = minutes};
        const bool idleChoice = minutes == 5 || minutes == 10 || minutes == 15;
        EXPECT_EQ(failureOf([&] { idle.validate(); }), idleChoice ? "" : "无效的系统休眠时间")
            << minutes;
    }
}

TEST(PowerOptimizationPlanTest, AimsLowPowerModeByScope) {
    using Targets = std::vector<PowerTarget>;
    EXPECT_EQ(fullPlan(kAc, PowerScope::current).targets(),
              (Targets{{kAc, lowPowerMode, 1}, {kAc, displaySleep, 5}, {kAc, systemSleep, 10}}));
    EXPECT_EQ(
        fullPlan(kAc, PowerScope::batteryAutomatic).targets(),
        (Targets{{kBattery, lowPowerMode, 1}, {kAc, displaySleep, 5}, {kAc, systemSleep, 10}}));
    EXPECT_EQ((PowerOptimizationPlan{.disableTurbo = true}.targets()), Targets{});
}

TEST(PowerOptimizationPlanTest, EditsOnlyWhatDiffers) {
    auto settings = laptopSettings();
    settings.profiles[kBattery][displaySleep] = 5;
    const auto plan = fullPlan(kBattery, PowerScope::current);
    EXPECT_EQ(plan.edits(settings), (std::vector<PowerEdit>{{kBattery, lowPowerMode, 0, 1},
                                                            {kBattery, systemSleep, 30, 10}}));
    EXPECT_EQ(plan.edits({}), std::vector<PowerEdit>{});
    EXPECT_EQ((PowerEdit{kBattery, systemSleep, 30, 10}.id()), "battery:sleep");
}

TEST(PowerOptimizationPlanTest, NeedsEveryTargetReadableAndAsExpected) {
    struct Case {
        const char* what;
        std::string failure;
        PowerOptimizationPlan plan;
        PowerConfiguration reading;
    };
    const auto without = [](std::vector<PowerSetting> settings) {
        auto reading = laptopSettings();
        for (const auto setting : settings) {
            reading.profiles[kBattery].erase(setting);
        }
        return reading;
    };
    const auto plan = fullPlan(kBattery, PowerScope::current);
    const auto expecting = [&](PowerConfiguration expected) {
        auto changed = plan;
        changed.expected = std::move(expected);
        return changed;
    };
    auto otherAcSleep = laptopSettings();
    otherAcSleep.profiles[kAc][systemSleep] = 7;
    auto otherBatterySleep = laptopSettings();
    otherBatterySleep.profiles[kBattery][systemSleep] = 7;
    auto invalid = plan;
    invalid.displayMinutes = 3;

    const std::vector<Case> cases{
        {"readable", "", plan, laptopSettings()},
        {"validity comes first", "无效的显示器休眠时间", invalid, {}},
        {"no low-power mode", "此设备的系统低电量设置不可读取", plan, without({lowPowerMode})},
        {"no display sleep", "显示器休眠设置不可读取", plan, without({displaySleep})},
        {"no system sleep", "系统休眠设置不可读取", plan, without({systemSleep})},
        {"the first missing one is named", "显示器休眠设置不可读取", plan,
         without({systemSleep, displaySleep})},
        {"missing settings nobody aims at", "", {.source = kBattery}, {}},
        {"as expected", "", expecting(laptopSettings()), laptopSettings()},
        {"another source may have changed", "", expecting(otherAcSleep), laptopSettings()},
        {"a target has changed", "电源设置已变化，请刷新后重新选择措施",
         expecting(otherBatterySleep), laptopSettings()},
        {"a target nobody expected", "电源设置已变化，请刷新后重新选择措施",
         expecting(without({systemSleep})), laptopSettings()},
        {"unreadable before unexpected", "系统休眠设置不可读取", expecting(otherBatterySleep),
         without({systemSleep})},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(failureOf([&] { c.plan.requireReadable(c.reading); }), c.failure) << c.what;
    }
}

}  // namespace
}  // namespace ferovane
