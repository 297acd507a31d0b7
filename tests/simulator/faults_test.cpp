// Faults strike what they name, as often as they are told, at their moment.
#include "simulator/machine/faults.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <iterator>
#include <sstream>

#include "simulator/machine/machine.h"
#include "simulator/machine/simulated_mac.h"
#include "tests/simulator/machine_fixture.h"

namespace {

using namespace simulator;

class FaultsTest : public testing::Test {
protected:
    FaultsTest() { mac_.set(Property::kPrivileged, 1); }

    SimulatedMac mac_ = intelMac(2);
    Attachment attached_{mac_.machine()};
    Connection smc_;
};

TEST_F(FaultsTest, HappenInTheOrderOfTheirMoments) {
    mac_.at(20).driftTarget(0, 100);
    mac_.at(10).otherTakesFan(0);
    mac_.at(15).set(Property::kLoad, 50);
    mac_.clearJournal();
    mac_.advance(9.9);
    EXPECT_TRUE(mac_.journal().empty());
    mac_.advance(20);
    const auto journal = mac_.journal();
    ASSERT_EQ(journal.size(), 4U);
    EXPECT_NE(journal[0].find(" 10.000 other write F0Md=1 -> 00"), std::string::npos);
    EXPECT_NE(journal[1].find(" 10.000 other write F0Tg=6200 -> 00"), std::string::npos);
    EXPECT_NE(journal[2].find(" 15.000 world load=50"), std::string::npos);
    EXPECT_NE(journal[3].find(" 20.000 other write F0Tg=6300 -> 00"), std::string::npos);
    EXPECT_EQ(mac_.writes(), "") << "none of them by an attached process";
}

TEST_F(FaultsTest, TellWhoHoldsAFanHoweverItWasTaken) {
    const auto holder = [this](int fan) {
        return mac_.machine().locked(
            [fan](World& world) { return world.state().fans[fan].holder; });
    };
    mac_.delayWrites("F0Md", 1, kOnce);
    ASSERT_EQ(smc_.write("F0Md", 1), 0);
    mac_.otherTakesFan(1);
    mac_.advance(2);
    EXPECT_EQ(holder(0), ::getpid());
    EXPECT_EQ(holder(1), kHeldByOther);
    mac_.sleep(1);
    EXPECT_EQ(holder(1), 0);
    mac_.otherKeepsTarget(1, 3000, 1.5);
    ASSERT_EQ(smc_.write("F1Md", 0), 0);
    mac_.advance(1.4);
    EXPECT_FALSE(mac_.fanManual(1));
    mac_.advance(0.2);
    EXPECT_EQ(holder(1), kHeldByOther);
    EXPECT_EQ(mac_.fanTarget(1), 3000);
}

TEST_F(FaultsTest, CanBeWrittenAsText) {
    const auto parsed = [this](const std::string& line) {
        std::istringstream words(line);
        const std::vector<std::string> all(std::istream_iterator<std::string>(words), {});
        return mac_.machine().locked([&all](World& world) {
            const FaultRecord fault = Faults::parse(world, all);
            Faults::befall(world, fault);
            return Faults::text(fault);
        });
    };
    for (const char* line : {"refuse-write key=F0Md code=0x82 times=2", "drift-target fan=1 rpm=3",
                             "tool-fails code=0x07 tool=pmset", "keep-target fan=0 rpm=1 seconds=0",
                             "set property=load value=5 at=60", "sleep seconds=3 at=60"}) {
        EXPECT_EQ(parsed(line), line);
    }
    EXPECT_EQ(smc_.write("F0Md", 1), kBadCommand);
    EXPECT_EQ(smc_.write("F0Md", 1), kBadCommand);
    EXPECT_EQ(smc_.write("F0Md", 1), 0) << "as often as it was told";
    for (const char* wrong :
         {"", "no-such-fault", "zero code=1", "refuse-write key=F0Md code=x", "freeze",
          "garbage key=F0Mdd", "set property=weather value=1", "take-fan times=2", "sleep seconds",
          "sleep seconds=nan", "sleep seconds=1e300", "sleep seconds=-1"}) {
        EXPECT_THROW(parsed(wrong), std::runtime_error) << wrong;
    }
}

}  // namespace
