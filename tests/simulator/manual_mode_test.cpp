// Who may take a fan, and what the world publishes: what is true of real machines alone.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <functional>

#include "simulator/apple/live_objects.h"
#include "simulator/machine/machine.h"
#include "simulator/machine/simulated_mac.h"
#include "tests/simulator/machine_fixture.h"

namespace {

using namespace simulator;

// A machine that this process is attached to, and may write to whoever runs the test.
struct Attached {
    explicit Attached(SimulatedMac made) : mac(std::move(made)), attachment(mac.machine()) {
        mac.set(Property::kPrivileged, 1);
    }
    SimulatedMac mac;
    Attachment attachment;
    Connection smc;
};

TEST(ManualModeTest, WithTheForcedMaskATargetCountsOnlyWhileItsBitIsSet) {
    Attached test(intelMacWithMaskOnly(2));
    SimulatedMac& mac = test.mac;
    EXPECT_EQ(test.smc.write("F1Tg", 4000), 0);
    mac.advance(5);
    EXPECT_EQ(mac.fanTarget(1), 1950) << "the controller's own control rules";
    EXPECT_EQ(test.smc.write("FS! ", 2), 0);
    EXPECT_EQ(test.smc.write("F1Tg", 4000), 0);
    mac.advance(10);
    EXPECT_TRUE(mac.fanManual(1));
    EXPECT_FALSE(mac.fanManual(0));
    EXPECT_NEAR(mac.fanRpm(1), 4000, 20);
    EXPECT_EQ(test.smc.write("FS! ", 0), 0);
    mac.advance(10);
    EXPECT_EQ(mac.fanTarget(1), 1950);
    EXPECT_EQ(mac.writes(), "F1Tg=4000 FS! =2 F1Tg=4000 FS! =0");
}

TEST(ManualModeTest, TheLockOpensAndClosesSecondsAfterTheUnlock) {
    Attached test(appleSiliconMac(2, {.manualMode = ManualModeRule::kRefusedUntilUnlocked}));
    SimulatedMac& mac = test.mac;
    EXPECT_EQ(test.smc.write("F0Md", 1), kBadCommand);
    mac.otherWrites("Ftst", 1);
    mac.advance(2.9);
    EXPECT_EQ(test.smc.write("F0Md", 1), kBadCommand);
    mac.advance(1.1);
    EXPECT_EQ(test.smc.read("F0Md"), 0);
    EXPECT_EQ(test.smc.write("F0Md", 1), 0);
    EXPECT_EQ(test.smc.write("F1Md", 1), 0) << "the second one at once";
    mac.advance(3600);
    EXPECT_TRUE(mac.fanManual(0)) << "held as long as the unlock is";
    mac.otherWrites("Ftst", 0);
    mac.advance(3.9);
    EXPECT_TRUE(mac.fanManual(0));
    mac.advance(1.2);
    EXPECT_EQ(test.smc.read("F1Md"), 3);
    EXPECT_TRUE(mac.allFansAutomatic());
}

TEST(ManualModeTest, AnUnlockThatExistsNeedNotBeNeededAndAYesMayMeanNothing) {
    Attached test(appleSiliconMac(1));
    test.mac.set(Property::kManualMode, static_cast<double>(ManualModeRule::kWithoutEffect));
    EXPECT_EQ(test.smc.write("F0Md", 1), 0);
    EXPECT_EQ(test.smc.read("F0Md"), 0);
    test.mac.set(Property::kManualMode, static_cast<double>(ManualModeRule::kAcceptedAtOnce));
    EXPECT_EQ(test.smc.read("Ftst"), 0);
    EXPECT_EQ(test.smc.write("F0Md", 1), 0);
    test.mac.advance(60);
    EXPECT_TRUE(test.mac.fanManual(0));
}

TEST(ManualModeTest, SleepLosesEveryHold) {
    for (auto make : {+[] { return intelMac(2); }, +[] { return intelMacWithMaskOnly(2); },
                      +[] { return appleSiliconMac(2); }}) {
        Attached test(make());
        test.mac.otherTakesFan(1);
        ASSERT_FALSE(test.mac.allFansAutomatic());
        const double asleep = fv_continuous_seconds() - fv_uptime_seconds();
        test.mac.sleep(3600);
        EXPECT_NEAR(fv_continuous_seconds() - fv_uptime_seconds() - asleep, 3600, 1e-6);
        EXPECT_TRUE(test.mac.allFansAutomatic());
    }
}

TEST(ManualModeTest, TellsWhoHoldsAFanHoweverItWasTaken) {
    Attached test(intelMac(2));
    SimulatedMac& mac = test.mac;
    const auto holder = [&mac](int fan) {
        return mac.machine().locked([fan](World& world) { return world.state().fans[fan].holder; });
    };
    mac.delayWrites("F0Md", 1, kOnce);
    ASSERT_EQ(test.smc.write("F0Md", 1), 0);
    mac.otherTakesFan(1);
    mac.advance(2);
    EXPECT_EQ(holder(0), ::getpid());
    EXPECT_EQ(holder(1), kHeldByOther);
    mac.sleep(1);
    EXPECT_EQ(holder(1), 0);
    mac.otherKeepsTarget(1, 3000, 1.5);
    ASSERT_EQ(test.smc.write("F1Md", 0), 0);
    mac.advance(1.4);
    EXPECT_FALSE(mac.fanManual(1));
    mac.advance(0.2);
    EXPECT_EQ(holder(1), kHeldByOther);
    EXPECT_EQ(mac.fanTarget(1), 3000);
}

TEST(PublishedTest, EveryValueMayBeMissing) {
    const std::int64_t before = liveObjects();
    Attached test(intelMac(1));
    const auto battery = [](double FVBattery::*value) { return std::isnan(fv_battery().*value); };
    struct Case {
        Property property;
        std::function<bool()> missing;
    };
    const Case cases[] = {
        {Property::kSpeedLimit, [] { return fv_power_status().speed_limit == -1; }},
        {Property::kSchedulerLimit, [] { return fv_power_status().scheduler_limit == -1; }},
        {Property::kAvailableCpus, [] { return fv_power_status().available_cpus == -1; }},
        {Property::kThermalWarning, [] { return fv_power_status().thermal_warning == -1; }},
        {Property::kThermalState, [] { return fv_thermal_state() == -1; }},
        {Property::kLowPowerFlag, [] { return fv_low_power_mode() == -1; }},
        {Property::kMemoryPressure, [] { return fv_memory_pressure() == -1; }},
        {Property::kProcessors, [] { return fv_processor_count() == -1; }},
        {Property::kBatteryCharging, [] { return fv_battery().charging == -1; }},
        {Property::kBatteryCycles, [] { return fv_battery().cycles == -1; }},
        {Property::kBatteryPercent, [&] { return battery(&FVBattery::percent); }},
        {Property::kBatteryMillivolts, [&] { return battery(&FVBattery::millivolts); }},
        {Property::kBatteryMilliamps, [&] { return battery(&FVBattery::milliamps); }},
        {Property::kAcPower, [] { return fv_ac_power() == -1; }},
    };
    for (const Case& wanted : cases) {
        EXPECT_EQ(wanted.missing(), wanted.property == Property::kThermalWarning)
            << propertyName(wanted.property);
        test.mac.setAbsent(wanted.property);
        EXPECT_TRUE(wanted.missing()) << propertyName(wanted.property);
    }
    test.mac.setSystemVersion("");
    test.mac.setCpuBrand("");
    char brand[64];
    EXPECT_EQ(fv_system_version(), -1);
    EXPECT_EQ(fv_cpu_brand(brand, sizeof brand), -1);
    test.mac.setFollowing(Property::kThermalState);
    EXPECT_EQ(fv_thermal_state(), 0);
    EXPECT_EQ(liveObjects(), before);
}

}  // namespace
