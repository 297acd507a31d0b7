#include <gtest/gtest.h>

#include "core/model/scope_error.h"
#include "helper/held_fans.h"
#include "tests/helper/helper_world.h"

namespace ferovane::testing {
namespace {

const std::string kCoolingDone = "散热会话结束，已确认风扇恢复系统自动。\n";

// {"points":[{"temperature":30,"percent":20},{"temperature":90,"percent":100}],"sensor":"CPU"}
const std::string kCurve =
    "eyJwb2ludHMiOlt7InRlbXBlcmF0dXJlIjozMCwicGVyY2VudCI6MjB9LHsidGVtcGVyYXR1cmUiOjkwLCJwZXJjZW50"
    "IjoxMDB9XSwic2Vuc29yIjoiQ1BVIn0=";

TEST(CoolingCommandTest, RunsAtFullSpeedForItsTimeAndHandsBack) {
    for (const auto& [word, seconds] :
         {std::pair<std::string, double>{"cooling", 300.0}, {"test-fan", 5.0}}) {
        HelperWorld world(simulator::intelMac(2));
        const double start = world.mac.now();
        bool full = true;
        world.onPause = [&] { full = full && world.mac.fanTarget(1) == 5800; };
        EXPECT_EQ(world.cool(word), 0) << world.errors.text();
        EXPECT_TRUE(full);
        EXPECT_EQ(world.output.text(), kCoolingDone);
        EXPECT_EQ(world.mac.writes(), "F0Md=1 F0Tg=6200 F1Md=1 F1Tg=5800 F0Md=0 F1Md=0");
        EXPECT_TRUE(world.mac.allFansAutomatic());
        EXPECT_NEAR(world.mac.now() - start, seconds, 2.0);
        EXPECT_EQ(world.guardianRecord, "held returned ");
    }
}

TEST(CoolingCommandTest, ReadsItsArgumentsStrictly) {
    const std::string pid = std::to_string(kOwnerPid);
    const std::string uid = std::to_string(kOwnerUid);
    const std::vector<std::vector<std::string>> refused{
        {pid, uid},
        {pid, uid, kSession, "x"},
        {"", uid, kSession},
        {" " + pid, uid, kSession},
        {pid + "x", uid, kSession},
        {"0x1267", uid, kSession},
        {"4294971967", uid, kSession},  // the process id plus two to the power 32
        {"1", uid, kSession},
        {"-4711", uid, kSession},
        {pid, "0", kSession},
        {pid, "-501", kSession},
        {pid, "502", kSession},
        {pid, uid, ""},
        {pid, uid, "6f1c2f0e7a444d2b9a3d0e6c9bb0a1f2"},
        {pid, uid, "../../../../../../../../etc/passwd00"},
    };
    for (std::vector<std::string> words : refused) {
        HelperWorld world(simulator::intelMac(2));
        // So that only user 502 is refused for not being the owner.
        world.environment.ownerAlive = [](std::int32_t, std::uint32_t user) { return user != 502; };
        words.insert(words.begin(), "cooling");
        EXPECT_EQ(world.run(words), 1) << ::testing::PrintToString(words);
        EXPECT_EQ(world.errors.text(), "无效的散热会话参数或发起程序已经退出\n");
        EXPECT_EQ(world.mac.calls().total(), 0U);
        EXPECT_EQ(world.guardianRecord, "");
    }
    HelperWorld world(simulator::intelMac(2));
    EXPECT_EQ(world.run({"test-fan", "+" + pid, "+" + uid, kSession}), 0) << world.errors.text();
}

using Ending = std::function<void(HelperWorld&)>;

TEST(CoolingCommandTest, EveryCauseOfStoppingEndsItWithinARound) {
    const std::vector<std::pair<std::string, Ending>> endings{
        {"stop file", [](HelperWorld& world) { world.files.insert(kStopFile); }},
        {"owner gone", [](HelperWorld& world) { world.ownerAlive = false; }},
        {"signal", [](HelperWorld& world) { world.stopFlag = true; }},
    };
    for (const auto& [name, end] : endings) {
        HelperWorld world(simulator::intelMac(2));
        world.onPause = [&, ending = end] {
            if (world.pauses == 20) {
                ending(world);
            }
        };
        EXPECT_EQ(world.cool(), 0) << name;
        EXPECT_EQ(world.pauses, 20) << name;
        EXPECT_TRUE(world.mac.allFansAutomatic()) << name;
        EXPECT_EQ(world.output.text(), kCoolingDone) << name;
    }
}

// Knows so often, and is gone then.
class MortalGuardian : public RecordingGuardian {
public:
    MortalGuardian(std::string& record, int left) : RecordingGuardian(record), left_(left) {}
    void fansHeld() override {
        if (left_-- == 0) {
            throw ScopeError("无人守护");
        }
        RecordingGuardian::fansHeld();
    }

private:
    int left_;
};

TEST(CoolingCommandTest, NoFanIsTakenWithoutAGuardianNorHeldForAnotherRound) {
    for (const std::string word : {"cooling", "profile"}) {
        for (int left = 0; left < 6; ++left) {
            HelperWorld world(simulator::intelMac(2));
            world.environment.makeGuardian = [&] {
                return std::make_unique<MortalGuardian>(world.guardianRecord, left);
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
    struct Case {
        std::string mode;
        std::int64_t before;
        std::vector<std::string> writes;
    };
    const std::vector<Case> cases{
        {"quiet", 0, {"turbo=1"}},
        {"quiet", 1, {}},
        {"balanced", 1, {"turbo=0"}},
        {"balanced", 0, {}},
        {"performance", 1, {"turbo=0"}},
        {"automatic", 1, {"turbo=0"}},
        {"custom", 1, {}},
        {"custom", 0, {}},
    };
    for (const Case& c : cases) {
        HelperWorld world(simulator::intelMac(2));
        world.power.turbo = c.before;
        world.onPause = [&] { world.stopFlag = true; };
        EXPECT_EQ(world.profile(c.mode, kCurve), 0) << c.mode << world.errors.text();
        EXPECT_EQ(world.power.writes, c.writes) << c.mode << c.before;
        EXPECT_EQ(world.output.text(), "模式会话结束，风扇已恢复系统自动；保留睿频选择。\n");
        EXPECT_TRUE(world.mac.allFansAutomatic());
    }
    for (const char* mode : {"eco", "Quiet", "静音", ""}) {
        HelperWorld world(simulator::intelMac(2));
        EXPECT_EQ(world.profile(mode), 1) << mode;
        EXPECT_EQ(world.errors.text(), "无效的模式会话参数\n") << mode;
        EXPECT_EQ(world.mac.calls().total(), 0U) << mode;
    }
}

TEST(ProfileCommandTest, PutsTurboBackWhenTheFansCannotFollow) {
    const std::string lost = "风扇控制被改变或无法读取，已停止曲线";
    struct Case {
        std::optional<std::int64_t> before;
        bool refused;
        std::vector<std::string> writes;
        std::string message;
    };
    const std::vector<Case> cases{
        {0, false, {"turbo=1", "turbo=0"}, lost},
        {std::nullopt, false, {"turbo=1"}, lost},  // there is nothing to go back to
        {0, true, {"turbo=1", "turbo=0!"}, lost + "；睿频回退失败：第1步失败"},
    };
    for (const Case& c : cases) {
        HelperWorld world(simulator::intelMac(2));
        world.power.turbo = c.before;
        world.onPause = [&] {
            world.mac.driftTarget(0, 3);
            if (c.refused) {
                world.power.failCall(1, PowerFault::refused);
            }
        };
        EXPECT_EQ(world.profile("quiet"), 1);
        EXPECT_EQ(world.errors.text(), c.message + "\n");
        EXPECT_EQ(world.power.writes, c.writes);
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
    const std::string tooLong(4100, 'A');
    // A first point at 20 degrees.
    const std::string tooCold =
        "eyJwb2ludHMiOlt7InRlbXBlcmF0dXJlIjoyMCwicGVyY2VudCI6MjB9LHsidGVtcGVyYXR1cmUiOjkwLCJwZXJj"
        "ZW50IjoxMDB9XSwic2Vuc29yIjoiQ1BVIn0=";
    const std::vector<std::pair<std::string, std::string>> curves{
        {"", "曲线数据无效\n"},
        {"e30=", "曲线数据无效\n"},                               // {}
        {kCurve + "\n", "曲线数据无效\n"},                        // not of the alphabet
        {kCurve.substr(0, kCurve.size() - 1), "曲线数据无效\n"},  // padding missing
        {tooLong, "曲线数据无效\n"},
        {tooCold, "曲线温度范围为 30–100°C，转速范围为 0–100%\n"},
    };
    for (const auto& [curve, message] : curves) {
        HelperWorld world(simulator::intelMac(2));
        EXPECT_EQ(world.profile("custom", curve), 1);
        EXPECT_EQ(world.errors.text(), message);
        EXPECT_EQ(world.mac.calls().total(), 0U);
    }
}

TEST(ProfileCommandTest, NeedsATemperatureBeforeItSwitchesTurbo) {
    HelperWorld cold(simulator::intelMac(2));
    for (const char* key : {"TC0C", "TC0P", "TC1C"}) {
        cold.mac.removeKey(key);
    }
    EXPECT_EQ(cold.profile("quiet"), 1);
    EXPECT_EQ(cold.errors.text(),
              "风扇必须处于系统自动，且控制温度传感器可读取；请先退出其他调控软件。\n");
    EXPECT_EQ(cold.mac.writes(), "");
    EXPECT_TRUE(cold.power.writes.empty()) << "turbo is switched only when the fans can follow";
}

}  // namespace
}  // namespace ferovane::testing
