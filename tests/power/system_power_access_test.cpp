// What power logic is told of a machine, and that the driver's state is the machine's own.
#include "helper/system_power_access.h"

#include <gtest/gtest.h>

#include <optional>

#include "core/power/sleep_blocker.h"
#include "simulator/machine/simulated_mac.h"
#include "tests/support/failure_text.h"

namespace ferovane {
namespace {

using simulator::Property;

struct SystemPowerAccessTest : ::testing::Test {
    simulator::SimulatedMac mac = simulator::intelMac(2);
    simulator::Attachment attached = mac.attach();
    SystemPowerAccess access;
};

TEST_F(SystemPowerAccessTest, TellsTheSourceOnlyWhenItIsKnown) {
    mac.set(Property::kAcPower, 1);
    EXPECT_EQ(access.currentSource(), PowerSource::ac);
    mac.set(Property::kAcPower, 0);
    EXPECT_EQ(access.currentSource(), PowerSource::battery);
    mac.setAbsent(Property::kAcPower);
    EXPECT_EQ(access.currentSource(), std::nullopt);
}

TEST_F(SystemPowerAccessTest, TellsTheDriverStateOnlyWhenItIsKnown) {
    mac.set(Property::kExtensionLoaded, 0);
    EXPECT_EQ(access.turboState(), 0);
    mac.set(Property::kExtensionLoaded, 1);
    EXPECT_EQ(access.turboState(), 1);
    access.setTurbo(true);  // nothing to run
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

}  // namespace
}  // namespace ferovane
