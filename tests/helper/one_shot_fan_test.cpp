#include <gtest/gtest.h>

#include <tuple>

#include "core/model/scope_error.h"
#include "helper/held_fans.h"
#include "tests/helper/helper_world.h"

namespace ferovane::testing {
namespace {

// {"points":[{"temperature":30,"percent":20},{"temperature":90,"percent":100}],"sensor":"CPU"}
const std::string kCurve =
    "eyJwb2ludHMiOlt7InRlbXBlcmF0dXJlIjozMCwicGVyY2VudCI6MjB9LHsidGVtcGVyYXR1cmUiOjkwLCJwZXJjZW50"
    "IjoxMDB9XSwic2Vuc29yIjoiQ1BVIn0=";

TEST(CoolingCommandTest, ReadsItsArgumentsStrictly) {
    // SESSION stands for one that would do; 4294971967 is the process id plus two to the power 32.
    for (std::string line : {"4711 501", "4711 501 SESSION x", "501 SESSION", "4711x 501 SESSION",
                             "0x1267 501 SESSION", "4294971967 501 SESSION", "1 501 SESSION",
                             "-4711 501 SESSION", "4711 0 SESSION", "4711 -501 SESSION",
                             "4711 502 SESSION", "4711 501 6f1c2f0e7a444d2b9a3d0e6c9bb0a1f2",
                             "4711 501 ../../../../../../../etc/passwd0"}) {
        if (const std::size_t place = line.find("SESSION"); place != std::string::npos) {
            line.replace(place, 7, kSession);
        }
        HelperWorld world(simulator::intelMac(2));
        // So that only user 502 is refused for not being the owner.
        world.environment.ownerAlive = [](std::int32_t, std::uint32_t user) { return user != 502; };
        EXPECT_EQ(world.run(wordsOf("cooling " + line)), 1) << line;
        EXPECT_EQ(world.errors.text(), "无效的散热会话参数或发起程序已经退出\n");
        EXPECT_EQ(world.mac.calls().total(), 0U);
        EXPECT_EQ(world.guardianRecord, "");
    }
    HelperWorld world(simulator::intelMac(2));
    EXPECT_EQ(world.run(wordsOf("test-fan +4711 +501 " + kSession)), 0) << world.errors.text();
}

// Knows so often, and is gone then.
class MortalGuardian : public RecordingGuardian {
public:
    MortalGuardian(HelperWorld& world, int left)
        : RecordingGuardian(world.guardianRecord, world.guardianLost), world_(world), left_(left) {}
    void fansHeld() override {
        world_.guardianLost = left_-- == 0;
        RecordingGuardian::fansHeld();
    }

private:
    HelperWorld& world_;
    int left_;
};

TEST(CoolingCommandTest, NoFanIsTakenWithoutAGuardianNorHeldForAnotherRound) {
    for (const std::string word : {"cooling", "profile"}) {
        for (int left = 0; left < 6; ++left) {
            HelperWorld world(simulator::intelMac(2));
            world.environment.makeGuardian = [&] {
                return std::make_unique<MortalGuardian>(world, left);
            };
            EXPECT_EQ(word == "cooling" ? world.cool() : world.profile("custom", kCurve), 1);
            EXPECT_EQ(world.errors.text(), "无人守护\n");
            EXPECT_EQ(world.pauses, std::max(0, left - 1)) << "asked before each of two fans";
            EXPECT_EQ(world.mac.writes().find("Md=1") == std::string::npos, left == 0);
            EXPECT_TRUE(world.mac.allFansAutomatic());
        }
    }
}

// What was never taken is not held: else the guardian would hand back the other program's fans.
TEST(CoolingCommandTest, WhileAnotherProgramHandsOverNothingCountsAsHeld) {
    HelperWorld world(simulator::appleSiliconMac(2), true);
    world.mac.otherHoldsUnlock();
    EXPECT_EQ(world.cool(), 1);
    EXPECT_EQ(world.errors.text(), "风扇控制交接已被占用，请先恢复系统自动\n");
    EXPECT_EQ(world.guardianRecord, "held returned ");
    EXPECT_EQ(world.mac.writes().find("F0Md"), std::string::npos) << "the fan it was refused";
}

TEST(CoolingCommandTest, AHandBackThatFailsIsTriedAgainAndThenTold) {
    const std::string ended = "检测到风扇状态改变或无法读取，散热会话已停止\n";
    const std::string told =
        "恢复自动风扇失败：SMC F1Md 写入失败（134）；此机型可能不支持控制（风扇 2）\n";
    for (const bool once : {true, false}) {
        HelperWorld world(simulator::intelMac(2));
        world.onPause = [&] {
            world.onPause = nullptr;
            world.mac.driftTarget(0, 100);
            once ? world.mac.refuseWrites("F1Md", simulator::kNotWritable, simulator::kOnce)
                 : world.mac.refuseWrites("F1Md", simulator::kNotWritable);
        };
        EXPECT_EQ(world.cool(), 1);
        EXPECT_EQ(world.errors.text(), once ? ended : told + ended);
        EXPECT_EQ(world.mac.allFansAutomatic(), once);
        EXPECT_EQ(world.guardianRecord, once ? "held returned " : "held over ");
    }
}

TEST(HeldFansTest, AFanThatIsHeldIsNobodyElsesWhenItIsTakenAgain) {
    HelperWorld world(simulator::intelMac(2));
    const auto smc = world.environment.makeSMC();
    const auto guardian = world.environment.makeGuardian();
    HeldFans fans(*smc, *guardian);
    fans.setManual(1, true);
    fans.setManual(1, true);
    EXPECT_EQ(fans.returnHeld(), nullptr);
    EXPECT_TRUE(world.mac.allFansAutomatic());
    EXPECT_EQ(world.guardianRecord, "held returned ");
}

TEST(ProfileCommandTest, ModesAndTheirTurbo) {
    // A mode, whether turbo is disabled before, and what is written.
    const std::vector<std::tuple<std::string, int, std::string>> modes{
        {"quiet", 0, "turbo=1"},     {"quiet", 1, ""},
        {"balanced", 1, "turbo=0"},  {"performance", 0, ""},
        {"automatic", 1, "turbo=0"}, {"custom", 1, ""}};
    for (const auto& [mode, before, written] : modes) {
        HelperWorld world(simulator::intelMac(2));
        world.power.turbo = before;
        world.onPause = [&] { world.stopFlag = true; };
        EXPECT_EQ(world.profile(mode, kCurve), 0) << mode << world.errors.text();
        EXPECT_EQ(world.power.writes, wordsOf(written)) << mode << before;
        EXPECT_EQ(world.output.text(), "模式会话结束，风扇已恢复系统自动；保留睿频选择。\n");
        EXPECT_TRUE(world.mac.allFansAutomatic());
    }
}

TEST(ProfileCommandTest, PutsTurboBackWhenTheFansCannotFollow) {
    for (const std::string outcome : {"turbo=1 turbo=0", "turbo=1", "turbo=1 turbo=0!"}) {
        HelperWorld world(simulator::intelMac(2));
        if (outcome == "turbo=1") {
            world.power.turbo = std::nullopt;  // there is nothing to go back to
        }
        const bool refused = outcome.back() == '!';
        world.onPause = [&] {
            world.mac.driftTarget(0, 3);
            if (refused) {
                world.power.failCall(1, PowerFault::refused);
            }
        };
        EXPECT_EQ(world.profile("quiet"), 1);
        EXPECT_EQ(world.errors.text(), std::string("风扇控制被改变或无法读取，已停止曲线") +
                                           (refused ? "；睿频回退失败：第1步失败\n" : "\n"));
        EXPECT_EQ(world.power.writes, wordsOf(outcome));
        EXPECT_TRUE(world.mac.allFansAutomatic());
    }
}

TEST(ProfileCommandTest, AFanThatIsLeftIsTheGuardiansBeforeTurboIsPutBack) {
    HelperWorld world(simulator::intelMac(2));
    std::string recordBefore;
    world.onPause = [&] {
        world.mac.refuseWrites("F1Md", simulator::kNotWritable);
        world.mac.driftTarget(0, 3);
        world.power.failCall(1, PowerFault::refused, [&] { recordBefore = world.guardianRecord; });
    };
    EXPECT_EQ(world.profile("quiet"), 1);
    EXPECT_EQ(recordBefore, "held over ") << world.errors.text();
}

TEST(ProfileCommandTest, RefusesBeforeTouchingAnything) {
    // A first point at 20 degrees.
    const std::string tooCold =
        "eyJwb2ludHMiOlt7InRlbXBlcmF0dXJlIjoyMCwicGVyY2VudCI6MjB9LHsidGVtcGVyYXR1cmUiOjkwLCJwZXJj"
        "ZW50IjoxMDB9XSwic2Vuc29yIjoiQ1BVIn0=";
    const std::vector<std::tuple<std::string, std::string, std::string>> refusals{
        {"custom", tooCold, "曲线温度范围为 30–100°C，转速范围为 0–100%\n"},
        {"quiet", "-", "风扇必须处于系统自动，且控制温度传感器可读取；请先退出其他调控软件。\n"},
        {"eco", "-", "无效的模式会话参数\n"},
        {"custom", "e30=", "曲线数据无效\n"},
        {"custom", kCurve + "\n", "曲线数据无效\n"},
        {"custom", std::string(4100, 'A'), "曲线数据无效\n"}};
    for (const auto& [mode, curve, message] : refusals) {
        HelperWorld world(simulator::intelMac(2));
        for (const char* key : {"TC0C", "TC0P", "TC1C"}) {
            world.mac.removeKey(key);  // no temperature, which a mode needs before it may begin
        }
        EXPECT_EQ(world.profile(mode, curve), 1) << mode << curve;
        EXPECT_EQ(world.errors.text(), message);
        EXPECT_EQ(world.mac.calls().total() == 0, mode != "quiet");
        EXPECT_EQ(world.mac.writes(), "");
        EXPECT_TRUE(world.power.writes.empty()) << "turbo is switched when the fans can follow";
    }
}

}  // namespace
}  // namespace ferovane::testing
