// What power logic is told of a machine, and that the driver's state is the machine's own.
#include "helper/system_power_access.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <optional>
#include <string>

#include "core/power/power_transaction.h"
#include "core/power/sleep_blocker.h"
#include "simulator/machine/simulated_mac.h"
#include "tests/support/failure_text.h"

namespace ferovane {
namespace {

using simulator::Property;

struct NobodysKeeper : ToolKeeper {
    void toolStarted(pid_t) override {}
    void toolEnded() noexcept override {}
};

struct SystemPowerAccessTest : ::testing::Test {
    simulator::SimulatedMac mac = simulator::intelMac(2);
    simulator::Attachment attached = mac.attach();
    NobodysKeeper keeper;
    SystemPowerAccess access{keeper};
};

TEST_F(SystemPowerAccessTest, TellsSourceAndDriverOnlyWhenTheyAreKnown) {
    mac.set(Property::kAcPower, 1);
    EXPECT_EQ(access.currentSource(), PowerSource::ac);
    mac.set(Property::kAcPower, 0);
    EXPECT_EQ(access.currentSource(), PowerSource::battery);
    mac.setAbsent(Property::kAcPower);
    EXPECT_EQ(access.currentSource(), std::nullopt);
    for (const int loaded : {0, 1}) {
        mac.set(Property::kExtensionLoaded, loaded);
        EXPECT_EQ(access.turboState(), loaded);
    }
    mac.set(Property::kExtensionAnswers, 0);
    EXPECT_EQ(access.turboState(), std::nullopt);
}

TEST_F(SystemPowerAccessTest, AsksThePowerDaemonForBlockers) {
    EXPECT_FALSE(access.hasSleepBlockers());
    mac.hold({71, "caffeinate", "UserIsActive", "another type", 255, 1});
    EXPECT_FALSE(access.hasSleepBlockers());
    mac.hold({71, "caffeinate", "PreventUserIdleSystemSleep", "film", 255, 700000000});
    EXPECT_TRUE(access.hasSleepBlockers());
    EXPECT_EQ(SleepBlocker::read(),
              (std::vector<SleepBlocker>{
                  {71, "caffeinate", "film", "PreventUserIdleSystemSleep", Date{700000000}}}));
    mac.set(Property::kAssertionsAnswer, 0);
    EXPECT_EQ(testing::failureOf([this] { access.hasSleepBlockers(); }), "休眠阻止状态不可读取");
}

TEST(MachineWithToolsTest, APlanIsAppliedAndUndoneByTheSystemsToolsOrWhatTheySayIsPassedOn) {
    std::string directory = ::testing::TempDir() + "power-access-XXXXXX";
    ASSERT_NE(mkdtemp(directory.data()), nullptr);
    auto mac = simulator::createMachineDirectory(directory + "/mac", "MacBookPro16,1");
    const auto attached = mac.attach();
    NobodysKeeper keeper;
    SystemPowerAccess access{keeper};
    mac.set(Property::kPrivileged, 1);
    mac.set(Property::kAcPower, 0);
    mac.set(Property::kExtensionLoaded, 0);
    const auto before = access.configuration();
    const PowerOptimizationPlan plan{
        PowerSource::battery, PowerScope::current, false, 5, 15, true, before};

    const auto outcome = PowerTransaction::apply(plan, access);
    EXPECT_EQ(mac.powerSetting("Battery Power", "displaysleep"), "5");
    EXPECT_EQ(mac.powerSetting("Battery Power", "sleep"), "15");
    EXPECT_EQ(mac.value(Property::kExtensionLoaded), 1);
    ASSERT_TRUE(outcome.backup);

    EXPECT_TRUE(PowerTransaction::restore(*outcome.backup, access).changed);
    EXPECT_EQ(access.configuration(), before);
    EXPECT_EQ(mac.value(Property::kExtensionLoaded), 0);

    mac.set(Property::kPrivileged, 0);
    const auto failure = testing::failureOf(
        [&] { access.set(PowerSetting::displaySleep, PowerSource::battery, 5); });
    EXPECT_EQ(failure.rfind("系统电源设置未完成：'", 0), 0U) << failure;
    std::filesystem::remove_all(directory);
}

}  // namespace
}  // namespace ferovane
