#include "core/hardware/smc.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/model/scope_error.h"
#include "simulator/machine/simulated_mac.h"

namespace ferovane {
namespace {

using simulator::SimulatedMac;
using Kind = HardwareSensorKind;

// A machine with its controller open; a sleep of ours passes on the machine's own clock.
struct OpenMac {
    explicit OpenMac(SimulatedMac machine)
        : mac(std::move(machine)), attached(mac.attach()), smc(surroundings()) {}

    SMC::Surroundings surroundings() {
        auto surroundings = SMC::Surroundings::ofThisMachine();
        surroundings.sleep = [this](double seconds) { mac.advance(seconds); };
        return surroundings;
    }

    SimulatedMac mac;
    simulator::Attachment attached;
    SMC smc;
};

std::string failure(const std::function<void()>& action) {
    try {
        action();
    } catch (const ScopeError& error) {
        return error.message();
    }
    return "(none)";
}

std::vector<std::optional<bool>> modes(SMC& smc) {
    std::vector<std::optional<bool>> modes;
    for (const auto& fan : smc.fans()) {
        modes.push_back(fan.manual);
    }
    return modes;
}

using Modes = std::vector<std::optional<bool>>;
constexpr std::nullopt_t kUnknown = std::nullopt;

TEST(SMCReadTest, FailuresCarryKeyAndCode) {
    OpenMac open(simulator::intelMac(2));
    EXPECT_EQ(failure([&] { open.smc.raw("TQQQ"); }), "SMC TQQQ 读取失败（132）");
    EXPECT_EQ(failure([&] { open.smc.raw("FNu"); }), "SMC FNu 读取失败（-1）");
    EXPECT_EQ(failure([&] { open.smc.raw("FNumb"); }), "SMC FNumb 读取失败（-1）");
    open.mac.setKeySize("F0Ac", 33);
    EXPECT_EQ(failure([&] { open.smc.raw("F0Ac"); }), "SMC F0Ac 读取失败（-2）");
    open.mac.refuseReads("FNum", -536870207, simulator::kOnce);
    EXPECT_EQ(failure([&] { open.smc.raw("FNum"); }), "SMC FNum 读取失败（-536870207）");

    EXPECT_EQ(open.smc.number("TQQQ"), std::nullopt);
    EXPECT_EQ(open.smc.number("FNum"), 2.0);
    open.mac.setKey("TQ0P", "hex_", {0x12, 0x34});
    EXPECT_EQ(open.smc.number("TQ0P"), std::nullopt) << "no number";
    open.mac.setKey("TQ0P", "flt ", {0x00, 0x00, 0x80, 0x7F});
    EXPECT_EQ(open.smc.number("TQ0P"), std::nullopt) << "infinity";
}

TEST(SMCReadTest, WithoutControllerNothingIsInvented) {
    OpenMac open(simulator::macWithoutController());
    EXPECT_FALSE(open.smc.available());
    EXPECT_EQ(open.smc.number("FNum"), std::nullopt);
    EXPECT_TRUE(open.smc.fans().empty());
    EXPECT_TRUE(open.smc.sensorKeys().empty());
    EXPECT_EQ(failure([&] { open.smc.raw("FNum"); }), "SMC FNum 读取失败（-1）");
    EXPECT_EQ(failure([&] { open.smc.setManual(0, false); }), "风扇 1 没有可识别的模式接口");
}

TEST(SMCReadTest, GivesEveryConnectionBack) {
    auto mac = simulator::intelMac(1);
    const auto attached = mac.attach();
    {
        SMC smc;
        EXPECT_TRUE(smc.available());
        smc.reopen();
        EXPECT_EQ(smc.number("FNum"), 1.0);
        mac.refuseOpening(-536870212, simulator::kOnce);
        smc.reopen();
        EXPECT_FALSE(smc.available());
    }
    EXPECT_EQ(mac.ports(), simulator::PortCounts{});
}

TEST(SMCWriteTest, IsDoneWhenReadBackTwice) {
    OpenMac open(simulator::intelMac(2));
    open.smc.setManual(0, true);
    open.mac.clearJournal();
    open.mac.clearCalls();
    open.smc.setTarget(0, 3000.5);
    EXPECT_EQ(open.mac.writes(), "F0Tg=3000.5");
    EXPECT_EQ(open.smc.target(0), 3000.5);
    // Learn the type, write, two read-backs; the last line above read once more.
    EXPECT_EQ(open.mac.calls().writes, 1U);
    EXPECT_EQ(open.mac.calls().reads, 4U);
}

TEST(SMCWriteTest, WaitsForASlowController) {
    OpenMac open(simulator::intelMac(2));
    open.smc.setManual(0, true);
    open.mac.delayWrites("F0Tg", 1.8, simulator::kOnce);
    EXPECT_EQ(failure([&] { open.smc.setTarget(0, 3000); }), "(none)");

    open.mac.delayWrites("F0Tg", 2.1, simulator::kOnce);
    EXPECT_EQ(failure([&] { open.smc.setTarget(0, 4000); }),
              "SMC F0Tg 回读不一致，操作未确认（目标4000.00，读回 3000.00；已等待最多 2 秒）");
}

TEST(SMCWriteTest, SaysWhyItFailed) {
    OpenMac open(simulator::intelMac(2));
    const double before = open.mac.now();
    const auto setTarget = [&](double rpm) { return failure([&] { open.smc.setTarget(0, rpm); }); };
    EXPECT_EQ(setTarget(-1), "SMC F0Tg 不支持写入这个数值");
    EXPECT_EQ(setTarget(20000.5), "SMC F0Tg 不支持写入这个数值");
    EXPECT_EQ(failure([&] { open.smc.write("TC0P", 20); }), "SMC TC0P 不支持写入这个数值");
    EXPECT_EQ(failure([&] { open.smc.setTarget(7, 2000); }), "SMC F7Tg 读取失败（132）");
    EXPECT_EQ(open.mac.writes(), "") << "nothing was tried so far";

    open.mac.refuseWrites("F0Tg", simulator::kBadCommand, simulator::kOnce);
    EXPECT_EQ(setTarget(3000), "SMC F0Tg 写入失败（130）；此机型可能不支持控制");
    EXPECT_EQ(failure([&] { open.smc.write("FNum", 3); }),
              "SMC FNum 写入失败（-3）；此机型可能不支持控制");
    EXPECT_EQ(open.mac.now(), before) << "none of these has to be waited for";
}

TEST(SMCWriteTest, AnAcceptedWriteWithoutEffectIsAFailure) {
    OpenMac open(simulator::intelMac(2));
    const double before = open.mac.now();
    open.mac.ignoreWrites("F0Tg");
    EXPECT_EQ(failure([&] { open.smc.setTarget(0, 3000.126); }),
              "SMC F0Tg 回读不一致，操作未确认（目标3000.13，读回 2000.00；已等待最多 2 秒）");
    EXPECT_NEAR(open.mac.now() - before, 2.0, 0.051);
    open.mac.clearFaults();

    // The key vanishes with the write: there is nothing to print as read back.
    open.mac.atWrite(1).refuseReads("F0Tg", simulator::kKeyNotFound);
    EXPECT_EQ(failure([&] { open.smc.setTarget(0, 3000); }),
              "SMC F0Tg 回读不一致，操作未确认（目标3000.00，读回 无；已等待最多 2 秒）");
}

TEST(SMCFansTest, ReadsSpeedsRangesAndModes) {
    OpenMac open(simulator::intelMac(2));
    open.mac.otherTakesFan(1);
    const auto fans = open.smc.fans();
    ASSERT_EQ(fans.size(), 2U);
    EXPECT_EQ(fans[0].id, 0);
    EXPECT_NEAR(*fans[0].rpm, open.mac.fanRpm(0), 1);
    EXPECT_EQ(fans[0].minimum, 2000);
    EXPECT_EQ(fans[0].maximum, 6200);
    EXPECT_EQ(fans[0].manual, false);
    EXPECT_TRUE(fans[0].controllable);
    EXPECT_EQ(fans[1].id, 1);
    EXPECT_EQ(fans[1].maximum, 5800);
    EXPECT_EQ(fans[1].manual, true);
}

TEST(SMCFansTest, CountMustMakeSense) {
    OpenMac open(simulator::intelMac(2));
    const auto fansFor = [&](double count) {
        open.mac.setNumber("FNum", count);
        return open.smc.fans().size();
    };
    EXPECT_EQ(fansFor(0), 0U);
    EXPECT_EQ(fansFor(1), 1U);
    EXPECT_EQ(fansFor(10), 10U) << "fans that are not there are listed, with nothing known";
    EXPECT_EQ(fansFor(11), 0U);
    open.mac.setKey("FNum", "flt ", {0x00, 0x00, 0xC0, 0x7F});
    EXPECT_TRUE(open.smc.fans().empty()) << "NaN";
    open.mac.setKey("FNum", "sp78", {0xFF, 0x00});
    EXPECT_TRUE(open.smc.fans().empty()) << "-1";
    open.mac.setUnreadable("FNum");
    EXPECT_TRUE(open.smc.fans().empty());
}

TEST(SMCFansTest, ControllableWithATargetAndABelievableMaximum) {
    OpenMac open(simulator::intelMac(1));
    const auto controllable = [&](double maximum) {
        open.mac.setNumber("F0Mx", maximum);
        return open.smc.fans().at(0).controllable;
    };
    EXPECT_TRUE(controllable(12000));
    EXPECT_TRUE(controllable(0.5));
    EXPECT_FALSE(controllable(12001));
    EXPECT_FALSE(controllable(0));
    EXPECT_TRUE(controllable(6200));
    open.mac.setUnreadable("F0Tg");
    EXPECT_FALSE(open.smc.fans().at(0).controllable);
    open.mac.removeKey("F0Mx");
    open.mac.removeKey("F0Ac");
    EXPECT_EQ(open.smc.fans().at(0).maximum, std::nullopt);
    EXPECT_EQ(open.smc.fans().at(0).rpm, std::nullopt);
}

TEST(SMCFansTest, ModesByMaskAlone) {
    OpenMac open(simulator::intelMacWithMaskOnly(2));
    EXPECT_EQ(modes(open.smc), (Modes{false, false}));
    open.mac.otherTakesFan(1);
    // While one fan is forced, the other's mode is not known until its own bit is set.
    EXPECT_EQ(modes(open.smc), (Modes{kUnknown, true}));
    open.mac.otherTakesFan(0);
    EXPECT_EQ(modes(open.smc), (Modes{true, true}));
    open.mac.setUnreadable("FS! ");
    EXPECT_EQ(modes(open.smc), (Modes{kUnknown, kUnknown}));
}

TEST(SMCFansTest, AForcedMaskMakesAModeKeyUncertain) {
    OpenMac open(simulator::intelMac(2));
    open.mac.setKey("FS! ", "ui16", {0x00, 0x02});
    EXPECT_EQ(modes(open.smc), (Modes{kUnknown, kUnknown}));
    open.mac.setKey("FS! ", "ui16", {0x00, 0x00});
    EXPECT_EQ(modes(open.smc), (Modes{false, false}));
}

TEST(SMCModeTest, IntelModeKey) {
    OpenMac open(simulator::intelMac(2));
    open.smc.setManual(1, true);
    EXPECT_EQ(modes(open.smc), (Modes{false, true}));
    open.smc.setManual(1, false);
    EXPECT_EQ(open.mac.writes(), "F1Md=1 F1Md=0");
    EXPECT_TRUE(open.mac.allFansAutomatic());
}

TEST(SMCModeTest, IntelMaskKeepsTheOtherFansBits) {
    OpenMac open(simulator::intelMacWithMaskOnly(3));
    open.smc.setManual(2, true);
    open.smc.setManual(0, true);
    open.smc.setManual(0, true);
    open.smc.setManual(2, false);
    open.smc.setManual(1, false);
    open.smc.setManual(0, false);
    EXPECT_EQ(open.mac.writes(), "FS! =4 FS! =5 FS! =5 FS! =1 FS! =1 FS! =0");
    EXPECT_TRUE(open.mac.allFansAutomatic());
}

TEST(SMCModeTest, RefusesWhatItCannotSwitch) {
    OpenMac open(simulator::intelMacWithMaskOnly(2));
    for (const int fan : {-1, 10, 64}) {
        EXPECT_EQ(failure([&] { open.smc.setManual(fan, true); }), "无效风扇编号") << fan;
    }
    // A mask that is no 16-bit mask is not written back with one bit changed.
    for (const auto& bytes : {std::vector<std::uint8_t>{0x00, 0x01, 0x00, 0x00},
                              std::vector<std::uint8_t>{0xFF, 0xFF, 0xFF, 0xFF}}) {
        open.mac.setKey("FS! ", "ui32", bytes);
        EXPECT_EQ(failure([&] { open.smc.setManual(1, true); }), "风扇 2 没有可识别的模式接口");
    }
    open.mac.setKey("FS! ", "flt ", {0x00, 0x00, 0xC0, 0x7F});
    EXPECT_EQ(failure([&] { open.smc.setManual(1, true); }), "风扇 2 没有可识别的模式接口");
    open.mac.removeKey("FS! ");
    EXPECT_EQ(failure([&] { open.smc.setManual(9, true); }), "风扇 10 没有可识别的模式接口");
    EXPECT_EQ(open.mac.writes(), "");
}

TEST(SMCModeTest, AppleSiliconHandsOver) {
    OpenMac open(simulator::appleSiliconMac(2));
    const double before = *open.mac.number("F0Md");
    open.smc.setManual(0, true);
    EXPECT_TRUE(open.mac.fanManual(0));
    // Taken already: only the hand-over, which remembers, refuses that; the switch would not.
    EXPECT_EQ(failure([&] { open.smc.setManual(0, true); }),
              "风扇未处于系统自动，请先退出其他风扇控制程序");
    open.smc.setManual(0, false);
    EXPECT_TRUE(open.mac.allFansAutomatic());
    EXPECT_EQ(open.mac.number("F0Md"), before);
    EXPECT_EQ(failure([&] { open.smc.setManual(10, true); }), "无效风扇编号");
}

TEST(SMCModeTest, AppleSiliconLowerCaseModeKey) {
    simulator::AppleSiliconOptions options;
    options.lowerCaseModeKey = true;
    OpenMac open(simulator::appleSiliconMac(2, options));
    open.smc.setManual(1, true);
    EXPECT_TRUE(open.mac.fanManual(1));
    open.smc.setManual(1, false);
    EXPECT_TRUE(open.mac.allFansAutomatic());
}

TEST(SMCModeTest, ALockedAppleSiliconMachineEndsRestored) {
    simulator::AppleSiliconOptions options;
    options.manualMode = simulator::AppleSiliconOptions::ManualMode::kRefusedUntilUnlocked;
    OpenMac open(simulator::appleSiliconMac(2, options));
    EXPECT_EQ(failure([&] { open.smc.setManual(0, true); }),
              "SMC Ftst 写入失败（-3）；此机型可能不支持控制");
    EXPECT_TRUE(open.mac.allFansAutomatic());
}

TEST(SMCSensorKeysTest, SortedAndJudged) {
    OpenMac open(
        simulator::macFromKeyDump("key,type,size,attributes,bytes,result\n"
                                  "TW0P,sp78,2,80,2000,00\n"
                                  "TC0P,sp78,2,80,3200,00\n"
                                  "TC9C,sp78,2,80,8100,00\n"
                                  "TC1P,sp78,2,80,7F00,00\n"
                                  "TCPG,sp78,2,80,6200,00\n"
                                  "TC2P,sp78,2,80,,85\n"
                                  "PSTR,flt ,4,80,0000A041,00\n"
                                  "VP0R,sp78,2,80,FF00,00\n"
                                  "IZAP,sp5a,2,80,8100,00\n"
                                  "ACID,ui16,2,80,0102,00\n"));
    using SensorKey = SMC::SensorKey;
    EXPECT_EQ(open.smc.sensorKeys(), (std::vector<SensorKey>{{"PSTR", Kind::power},
                                                             {"TC0P", Kind::temperature},
                                                             {"TW0P", Kind::temperature}}));
    EXPECT_EQ(open.smc.temperatureKeys(), (std::vector<std::string>{"TC0P", "TW0P"}));

    open.mac.setNumber("TC1P", 60);
    EXPECT_EQ(open.smc.temperatureKeys(), (std::vector<std::string>{"TC0P", "TC1P", "TW0P"}))
        << "a sensor that came back";
}

TEST(SMCSensorKeysTest, SurvivesAControllerThatListsBadly) {
    OpenMac open(simulator::intelMac(2));
    const auto all = open.smc.sensorKeys();
    ASSERT_GE(all.size(), 5U);
    // Every single call of the enumeration fails once: at most one sensor is missing.
    open.mac.clearCalls();
    (void)open.smc.sensorKeys();
    const auto calls = open.mac.calls().total();
    for (std::uint64_t k = 3; k <= calls; ++k) {  // the first two read the count
        open.mac.atCall(k).refuseCalls(simulator::kKeyNotFound, simulator::kOnce);
        const auto some = open.smc.sensorKeys();
        EXPECT_GE(some.size() + 1, all.size()) << k;
        EXPECT_LE(some.size(), all.size()) << k;
        open.mac.clearFaults();
    }
    open.mac.refuseCalls(simulator::kKeyNotFound, simulator::kOnce);
    EXPECT_TRUE(open.smc.sensorKeys().empty()) << "no count, no keys";
    // More keys are announced than there are.
    open.mac.setKey("#KEY", "ui32", {0x00, 0x00, 0x27, 0x10});
    EXPECT_EQ(open.smc.sensorKeys(), all);
    open.mac.setKey("#KEY", "ui32", {0x00, 0x00, 0x27, 0x11});
    EXPECT_TRUE(open.smc.sensorKeys().empty()) << "10001 is garbage";
}

}  // namespace
}  // namespace ferovane
