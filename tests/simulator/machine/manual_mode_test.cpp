// Who may take a fan: mode keys, the forced mask, the lock of Apple Silicon.
#include <gtest/gtest.h>
#include <unistd.h>

#include "simulator/machine/machine.h"
#include "simulator/machine/simulated_mac.h"
#include "tests/simulator/machine/connection.h"

namespace {

using namespace simulator;
using ManualMode = AppleSiliconOptions::ManualMode;

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
    EXPECT_TRUE(mac.allFansAutomatic());
    EXPECT_EQ(mac.writes(), "F1Tg=4000 FS! =2 F1Tg=4000 FS! =0");
}

TEST(ManualModeTest, LimitsAreWritableOnlyBeforeT2) {
    Attached old(intelMacWithMaskOnly(1));
    FVValue value = {};
    ASSERT_EQ(fv_smc_read(old.smc.handle(), "F0Mn", &value), 0);
    EXPECT_EQ(fv_smc_write(old.smc.handle(), "F0Mn", &value), -3) << "not through the shim";
    old.mac.otherWrites("F0Mn", 2500);
    EXPECT_EQ(old.mac.fanMinimum(0), 2500);
    old.mac.advance(5);
    EXPECT_EQ(old.mac.fanTarget(0), 2500) << "the automatic control keeps the new minimum";
}

TEST(ManualModeTest, T2KnowsTwoModes) {
    Attached test(intelMac(1));
    EXPECT_EQ(test.smc.write("F0Md", 3), 0x83);
    EXPECT_EQ(test.smc.write("F0Md", 1), 0);
    EXPECT_EQ(test.smc.write("F0Tg", 3000), 0);
    test.mac.advance(10);
    EXPECT_NEAR(test.mac.fanRpm(0), 3000, 15);
}

TEST(ManualModeTest, TheLockOpensThreeToFourSecondsAfterTheUnlock) {
    Attached test(appleSiliconMac(2, {.manualMode = ManualMode::kRefusedUntilUnlocked}));
    SimulatedMac& mac = test.mac;
    EXPECT_EQ(test.smc.read("F0Md"), 3);
    EXPECT_EQ(test.smc.write("F0Md", 1), kBadCommand);
    mac.otherWrites("Ftst", 1);
    mac.advance(2.9);
    EXPECT_EQ(test.smc.read("F0Md"), 3);
    EXPECT_EQ(test.smc.write("F0Md", 1), kBadCommand);
    mac.advance(1.1);
    EXPECT_EQ(test.smc.read("F0Md"), 0);
    EXPECT_EQ(test.smc.write("F0Md", 1), 0);
    EXPECT_EQ(test.smc.write("F1Md", 1), 0) << "the second one at once";
    mac.advance(3600);
    EXPECT_TRUE(mac.fanManual(0)) << "held as long as the unlock is";
}

TEST(ManualModeTest, TheSystemTakesItsFansBackWhenTheUnlockIsLost) {
    Attached test(appleSiliconMac(2, {.manualMode = ManualMode::kRefusedUntilUnlocked}));
    SimulatedMac& mac = test.mac;
    mac.otherWrites("Ftst", 1);
    mac.advance(4);
    ASSERT_EQ(test.smc.write("F0Md", 1), 0);
    mac.otherWrites("Ftst", 0);
    mac.advance(3.9);
    EXPECT_TRUE(mac.fanManual(0));
    mac.advance(1.2);
    EXPECT_EQ(test.smc.read("F0Md"), 3);
    EXPECT_EQ(test.smc.read("F1Md"), 3);
    EXPECT_EQ(test.smc.write("F0Md", 1), kBadCommand);
    EXPECT_TRUE(mac.allFansAutomatic());
}

TEST(ManualModeTest, SleepLosesEveryHold) {
    for (auto make : {+[] { return intelMac(2); }, +[] { return intelMacWithMaskOnly(2); },
                      +[] { return appleSiliconMac(2); }}) {
        Attached test(make());
        SimulatedMac& mac = test.mac;
        mac.otherTakesFan(1);
        ASSERT_FALSE(mac.allFansAutomatic());
        const double continuous = fv_continuous_seconds();
        const double uptime = fv_uptime_seconds();
        mac.sleep(3600);
        EXPECT_NEAR(fv_continuous_seconds() - continuous, 3600, 1e-6);
        EXPECT_NEAR(fv_uptime_seconds() - uptime, 0, 1e-6);
        EXPECT_TRUE(mac.allFansAutomatic());
    }
}

TEST(ManualModeTest, SomeMachinesSayYesAndDoNothing) {
    Attached test(appleSiliconMac(1, {.manualMode = ManualMode::kWithoutEffect}));
    EXPECT_EQ(test.smc.write("F0Md", 1), 0);
    EXPECT_EQ(test.smc.read("F0Md"), 0);
}

TEST(ManualModeTest, SomeMachinesRaiseATargetBelowTheMinimum) {
    Attached test(builtInMac("M5Pro"));
    EXPECT_EQ(test.smc.readCode("F0Md"), kKeyNotFound);
    EXPECT_EQ(test.smc.write("F0md", 1), 0);
    EXPECT_EQ(test.smc.write("F0Tg", 1000), 0);
    EXPECT_EQ(test.smc.read("F0Tg"), 2317);
    EXPECT_EQ(test.smc.write("F0Tg", 10000), 0);
    EXPECT_EQ(test.smc.read("F0Tg"), 10000);
    test.mac.advance(30);
    EXPECT_NEAR(test.mac.fanRpm(0), 9600, 60);
}

TEST(ManualModeTest, TellsWhoHoldsAFanHoweverItWasTaken) {
    Attached test(intelMac(2));
    SimulatedMac& mac = test.mac;
    const auto holder = [&mac](int fan) {
        return mac.machine().locked([fan](World& world) { return world.state().fans[fan].holder; });
    };
    const auto writeLate = [&](const char* key, double number) {
        mac.delayWrites(key, 1, kOnce);
        ASSERT_EQ(test.smc.write(key, number), 0);
        mac.advance(2);
    };
    writeLate("F0Md", 1);
    mac.otherTakesFan(1);
    EXPECT_EQ(holder(0), ::getpid());
    EXPECT_EQ(holder(1), kHeldByOther);
    writeLate("F0Md", 0);
    EXPECT_EQ(holder(0), 0);
    mac.sleep(1);
    EXPECT_EQ(holder(1), 0);
    mac.otherKeepsTarget(1, 3000, 1);
    ASSERT_EQ(test.smc.write("F1Md", 0), 0);
    mac.advance(2);
    EXPECT_EQ(holder(1), kHeldByOther);
}

TEST(ManualModeTest, AnotherProgramKeepsWritingItsTarget) {
    Attached test(intelMac(2));
    SimulatedMac& mac = test.mac;
    mac.otherKeepsTarget(0, 3000, 1.5);
    ASSERT_EQ(test.smc.write("F0Md", 0), 0);
    mac.advance(1.4);
    EXPECT_FALSE(mac.fanManual(0));
    mac.advance(0.2);
    EXPECT_TRUE(mac.fanManual(0));
    EXPECT_EQ(mac.fanTarget(0), 3000);
    mac.clearFaults();
    ASSERT_EQ(test.smc.write("F0Md", 0), 0);
    mac.advance(60);
    EXPECT_TRUE(mac.allFansAutomatic());
}

}  // namespace
