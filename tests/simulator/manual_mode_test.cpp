// Who may take a fan, and what the world publishes: what is true of real machines alone.
#include <gtest/gtest.h>
#include <unistd.h>

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

}  // namespace
