#include "helper/commands.h"

#include <gtest/gtest.h>

#include <map>

#include "helper/system_power_access.h"
#include "tests/helper/helper_world.h"

namespace ferovane::testing {
namespace {

const std::string kPrivileges = "硬件控制需要管理员授权；监测不需要管理员权限。\n";
const std::string kUsage =
    "允许的命令：probe、cooling、profile、auto、turbo-disable、turbo-enable\n";
const std::string kArguments = "无效参数\n";
const std::string kAuthentication = "原生授权会话身份验证失败\n";
const std::string kCoolingArguments = "无效的散热会话参数或发起程序已经退出\n";
const std::string kProfileArguments = "无效的模式会话参数\n";

TEST(CommandsTest, RefusesInOneFixedOrder) {
    const std::map<std::string, std::vector<std::string>> refusals{
        {kUsage,
         {"", "prob", "Probe", "probe x", "fan-probe x", "serve", "serve 4711", "serve 4711 501 x",
          "fan-guardian"}},
        {kArguments, {"auto x", "turbo-disable x", "turbo-enable x x"}},
        {kCoolingArguments, {"cooling", "test-fan"}},
        {kProfileArguments, {"profile"}},
        {kAuthentication, {"serve 4711 502"}},
    };
    for (const auto& [message, lines] : refusals) {
        for (const std::string& line : lines) {
            for (const std::uint32_t user : {0U, kOwnerUid}) {
                HelperWorld world(simulator::intelMac(2));
                world.environment.effectiveUser = user;
                EXPECT_EQ(world.run(wordsOf(line)), 1);
                const bool known = user == 0 || message == kAuthentication;
                EXPECT_EQ(world.errors.text(), known ? message : kPrivileges) << line;
                EXPECT_EQ(world.output.text() + world.mac.writes(), "");
            }
        }
    }
}

TEST(CommandsTest, AutoSaysWhatItCouldNotReturn) {
    const std::string stuck = "恢复自动风扇失败：SMC F1Md 写入失败（134）；此机型可能不支持控制\n";
    for (const auto& [fans, message] :
         {std::pair(3, stuck), {0, std::string("没有可读取的风扇\n")}}) {
        HelperWorld world(simulator::intelMac(fans));
        world.mac.refuseWrites("F1Md", simulator::kNotWritable);
        EXPECT_EQ(world.run({"auto"}), 1);
        EXPECT_EQ(world.errors.text(), message);
        EXPECT_EQ(world.output.text(), "");
    }
}

struct NobodysKeeper : ToolKeeper {
    void toolStarted(pid_t) override {}
    void toolEnded() noexcept override {}
};

// That it runs the machine's tools, a session's processes show.
TEST(SystemPowerAccessTest, TellsSourceAndDriverOnlyWhenTheyAreKnown) {
    using simulator::Property;
    HelperWorld world(simulator::intelMac(2));
    NobodysKeeper keeper;
    SystemPowerAccess access{keeper};
    for (const int state : {0, 1}) {
        world.mac.set(Property::kAcPower, state);
        EXPECT_EQ(access.currentSource(), state == 1 ? PowerSource::ac : PowerSource::battery);
        world.mac.set(Property::kExtensionLoaded, state);
        EXPECT_EQ(access.turboState(), state);
    }
    world.mac.setAbsent(Property::kAcPower);
    EXPECT_EQ(access.currentSource(), std::nullopt);
    world.mac.set(Property::kExtensionAnswers, 0);
    EXPECT_EQ(access.turboState(), std::nullopt);
}

}  // namespace
}  // namespace ferovane::testing
