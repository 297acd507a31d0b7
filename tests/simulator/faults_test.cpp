// Faults strike what they name, as often as they are told, at their moment.
#include "simulator/machine/faults.h"

#include <gtest/gtest.h>

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

TEST_F(FaultsTest, ReadsFail) {
    struct {
        void (*strike)(SimulatedMac&);
        int code;
    } const cases[] = {
        {[](SimulatedMac& mac) { mac.refuseReads("F0Ac", kNotReadable); }, kNotReadable},
        {[](SimulatedMac& mac) { mac.refuseReads("", -536870198); }, -536870198},
        {[](SimulatedMac& mac) { mac.refuseCalls(1); }, 1},
        {[](SimulatedMac& mac) { mac.wrongKeySize("F0Ac", 0); }, -2},
        {[](SimulatedMac& mac) { mac.wrongKeySize("F0Ac", 33); }, -2},
        {[](SimulatedMac& mac) { mac.wrongKeySize("F0Ac", 2); }, kSizeMismatch},
        {[](SimulatedMac& mac) { mac.wrongOutputSize(79); }, -1},
        {[](SimulatedMac& mac) { mac.vanishFan(0); }, kKeyNotFound},
        {[](SimulatedMac& mac) { mac.refuseOpening(-536870207, kOnce); }, 0},
    };
    for (const auto& wanted : cases) {
        wanted.strike(mac_);
        EXPECT_EQ(smc_.readCode("F0Ac"), wanted.code);
        mac_.clearFaults();
        EXPECT_EQ(smc_.readCode("F0Ac"), 0);
    }
}

TEST_F(FaultsTest, ReadsLie) {
    mac_.readZeros("F0Ac");
    EXPECT_EQ(smc_.read("F0Ac"), 0);
    mac_.clearFaults();
    mac_.readGarbage("F0Ac");
    EXPECT_NE(smc_.read("F0Ac"), smc_.read("F0Ac"));
    mac_.clearFaults();
    mac_.freezeReads("TC0C");
    const double frozen = smc_.read("TC0C");
    mac_.set(Property::kLoad, 100);
    mac_.advance(60);
    EXPECT_EQ(smc_.read("TC0C"), frozen);
    EXPECT_GT(*mac_.number("TC0C"), frozen + 5);
}

TEST_F(FaultsTest, WritesFailOrDoNothingOrComeLate) {
    mac_.refuseWrites("F0Md", kBadCommand);
    EXPECT_EQ(smc_.write("F0Md", 1), kBadCommand);
    EXPECT_EQ(smc_.write("F1Md", 1), 0) << "another key";
    mac_.ignoreWrites("F1Tg");
    EXPECT_EQ(smc_.write("F1Tg", 5000), 0);
    EXPECT_EQ(smc_.read("F1Tg"), 1950);
    mac_.clearFaults();
    mac_.delayWrites("F1Tg", 1.9);
    EXPECT_EQ(smc_.write("F1Tg", 5000), 0);
    mac_.advance(1.8);
    EXPECT_EQ(smc_.read("F1Tg"), 1950);
    mac_.advance(0.2);
    EXPECT_EQ(smc_.read("F1Tg"), 5000);
    EXPECT_EQ(mac_.writes(), "F0Md=1!82 F1Md=1 F1Tg=5000 F1Tg=5000");
}

TEST_F(FaultsTest, StrikeTheVeryCallThatIsNamed) {
    const auto sequence = [this] {
        std::string codes;
        for (int i = 0; i < 3; ++i) {
            codes += std::to_string(smc_.readCode("F0Ac")) + " ";
        }
        return codes;
    };
    // A read is two calls: its information, then its bytes.
    const char* expected[] = {"1 0 0 ", "1 0 0 ", "0 1 0 ", "0 1 0 ", "0 0 1 ", "0 0 1 "};
    for (std::uint64_t k = 1; k <= 6; ++k) {
        mac_.atCall(k).refuseCalls(1, kOnce);
        EXPECT_EQ(sequence(), expected[k - 1]) << k;
    }
    mac_.atWrite(2).refuseWrites("", 0x89, kOnce);
    EXPECT_EQ(smc_.write("F0Md", 1), 0);
    EXPECT_EQ(smc_.write("F0Tg", 3000), 0x89);
    EXPECT_EQ(smc_.write("F0Tg", 3000), 0);
}

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
