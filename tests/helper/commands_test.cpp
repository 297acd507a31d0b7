#include "helper/commands.h"

#include <gtest/gtest.h>

#include <map>

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

TEST(CommandsTest, MonitoringNeedsNoPrivileges) {
    HelperWorld world(simulator::intelMacWithMaskOnly(2));
    world.environment.effectiveUser = kOwnerUid;
    EXPECT_EQ(world.run({"fan-probe"}), 0);
    EXPECT_EQ(world.output.text(),
              "{\"F0Ac\":2000,\"F0Mn\":2000,\"F0Mx\":6200,\"F0Tg\":2000,\"FNum\":2,\"FS! \":0}\n");
    EXPECT_EQ(world.run({"probe"}), 0);
    const std::string text = world.output.text();
    EXPECT_EQ(world.pauses, 1) << "between two samples";
    EXPECT_LT(text.find("\n  \"cpuUsage\": "), text.find("\n  \"date\": \"20")) << text;
    EXPECT_TRUE(text.ends_with("\n}\n"));
    EXPECT_EQ(world.errors.text(), "");
}

TEST(CommandsTest, FanProbeOfNoControllerIsAnEmptyObject) {
    HelperWorld bare(simulator::macWithoutController());
    EXPECT_EQ(bare.run({"fan-probe"}), 0);
    EXPECT_EQ(bare.output.text(), "{}\n");
}

TEST(CommandsTest, AutoReturnsEveryFan) {
    HelperWorld world(simulator::intelMac(3));
    world.mac.otherTakesFan(1);
    EXPECT_EQ(world.run({"auto"}), 0);
    EXPECT_EQ(world.output.text(), "风扇已恢复系统自动。\n");
    EXPECT_EQ(world.mac.writes(), "F0Md=0 F1Md=0 F2Md=0");
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

TEST(CommandsTest, TurboCommandsConfirmOrFail) {
    HelperWorld world(simulator::intelMac(2));
    EXPECT_EQ(world.run({"turbo-disable"}), 0);
    EXPECT_EQ(world.run({"turbo-enable"}), 0);
    EXPECT_EQ(world.output.text(), "已确认禁用睿频驱动加载。\n已确认禁用睿频驱动卸载。\n");
    EXPECT_EQ(world.power.writes, (std::vector<std::string>{"turbo=1", "turbo=0"}));

    world.power.failCall(2, PowerFault::refused);
    EXPECT_EQ(world.run({"turbo-disable"}), 1);
    EXPECT_EQ(world.errors.text(), "第2步失败\n");
}

}  // namespace
}  // namespace ferovane::testing
