// The simulator's tool as a process.
#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/simulator/machine/machine_tools_fixture.h"

namespace {

using namespace simulator;
namespace fs = std::filesystem;

TEST_F(MachineToolsTest, EveryModelCanBeMadeAndShown) {
    const Result models = tool("models");
    ASSERT_EQ(models.status, 0);
    std::istringstream lines(models.output);
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count) {
        const std::string name = line.substr(0, line.find(' '));
        const std::string mac = scratch_.path("model-" + std::to_string(count));
        EXPECT_EQ(tool("create " + mac + " --model " + name).status, 0) << name;
        const Result shown = tool("show " + mac + " --json");
        EXPECT_EQ(shown.status, 0);
        for (const char* member : {"\"keys\": {", "\"fans\": [", "\"model\": \""}) {
            EXPECT_NE(shown.output.find(member), std::string::npos) << name << member;
        }
        EXPECT_EQ(tool("show " + mac).status, 0);
    }
    EXPECT_EQ(count, 9);
}

TEST_F(MachineToolsTest, WrongUseIsSaidInEnglishOnStandardError) {
    make("M1Pro");
    const std::string mac = directory();
    struct {
        std::string words;
        int status;
        const char* problem;
    } const cases[] = {
        {"", 2, "Usage:"},
        {"dance", 2, "unknown command \"dance\""},
        {"create", 2, "a directory and --model or --keys are needed"},
        {"create " + mac + "2 --keys /no/such/file", 1, "cannot read /no/such/file"},
        {"create " + mac + "2 --keys /dev/zero", 1, "/dev/zero is too large"},
        {"create -mac --model M1Pro", 2, "a machine directory is needed"},
        {"create " + mac + "2 --model Apple2", 1, "unknown model \"Apple2\""},
        {"show", 2, "a machine directory is needed"},
        {"show /", 1, "there is no simulated Mac in /"},
        {"show " + mac + " --yaml", 2, "unknown option --yaml"},
        {"set " + mac + " weather=1", 2, "unknown name: weather=1"},
        {"set " + mac + " load=much", 2, "not a number: load=much"},
        {"set " + mac + " load=nan", 2, "not a number: load=nan"},
        {"set " + mac + " speed=inf", 2, "not a number: speed=inf"},
        {"set " + mac + " sleep=-1", 2, "time does not go back: sleep=-1"},
        {"watch " + mac + " --for 1e400", 2, "not a number of seconds: 1e400"},
        {"write " + mac + " F0Tg", 2, "a key and a value"},
        {"write " + mac + " Nope 1", 1, "the machine has no key Nope"},
        {"fault " + mac + " hiccup", 2, "unknown fault: hiccup"},
        {"run " + mac + " true", 2, "DIR -- COMMAND"},
        {"run " + mac + " -- /no/such/program", 127, "cannot run /no/such/program"},
    };
    for (const auto& wanted : cases) {
        const Result result = tool(wanted.words);
        EXPECT_EQ(result.status, wanted.status) << wanted.words;
        EXPECT_NE(result.errors.find(wanted.problem), std::string::npos) << wanted.words << "\n"
                                                                         << result.errors;
        EXPECT_EQ(result.output, "") << wanted.words;
    }
    EXPECT_EQ(tool("--help").status, 0);
}

TEST_F(MachineToolsTest, AMalformedDumpNamesLineAndFieldAndLeavesNothing) {
    std::ofstream(scratch_.path("bad.csv"))
        << "key,type,size,attributes,bytes,result\nF0Ac,fpe2,2,90,zz,00\n";
    const Result result = tool("create " + directory() + " --keys " + scratch_.path("bad.csv"));
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.errors.find("line 2, field \"bytes\""), std::string::npos);
    EXPECT_FALSE(fs::exists(directory()));
}

TEST_F(MachineToolsTest, RunAttachesACommandAndNothingElseIsSimulated) {
    SimulatedMac mac = make("M1Pro");
    const std::string reader = besideThisProgram("attached_reader");
    EXPECT_EQ(run(reader + " FNum").output, "code -1\n") << "no machine, no controller";
    EXPECT_EQ(tool("run " + directory() + " -- " + reader + " FNum").output, "2\n");
    EXPECT_EQ(tool("write " + directory() + " F0Md 1").status, 0);
    EXPECT_EQ(tool("write " + directory() + " F0Tg 3333").status, 0);
    EXPECT_EQ(tool("run " + directory() + " -- " + reader + " F0Tg").output, "3333\n");
    EXPECT_EQ(tool("fault " + directory() + " refuse-read key=F0Tg code=0x85").status, 0);
    EXPECT_EQ(tool("run " + directory() + " -- " + reader + " F0Tg").output, "code 133\n");
    EXPECT_EQ(tool("fault " + directory() + " list").output, "refuse-read key=F0Tg code=0x85\n");
    EXPECT_EQ(tool("fault " + directory() + " clear").status, 0);
    EXPECT_EQ(tool("fault " + directory() + " list").output, "");
    const Result lost = run("FEROVANE_SIMULATED_MAC=/no/where " + reader + " FNum");
    EXPECT_EQ(lost.status, 2) << "never the host instead of the machine that was meant";
    EXPECT_NE(lost.errors.find("there is no directory /no/where"), std::string::npos);
}

TEST_F(MachineToolsTest, SetChangesTheWorldNowAndLater) {
    SimulatedMac mac = make("MacBookPro16,1");
    EXPECT_EQ(tool("set " + directory() +
                   " load=85 ac=yes speed-limit=absent turbo-applications=pro"
                   " battery:displaysleep=7 assert=99:caffeinate:PreventSystemSleep:why"
                   " in=3600 load=5")
                  .status,
              0);
    EXPECT_EQ(mac.value(Property::kLoad), 85);
    EXPECT_EQ(mac.value(Property::kAcPower), 1);
    EXPECT_EQ(mac.value(Property::kSpeedLimit), std::nullopt);
    EXPECT_EQ(mac.powerSetting("Battery Power", "displaysleep"), "7");
    EXPECT_TRUE(
        fs::exists(directory() + "/root/Applications/Turbo Boost Switcher Pro.app/Contents"));
    EXPECT_FALSE(fs::exists(directory() + "/root/Applications/Turbo Boost Switcher.app"));
    const std::string faults = tool("fault " + directory() + " list").output;
    EXPECT_EQ(faults.find("set property=load value=5 at=36"), 0U) << faults;
}

TEST_F(MachineToolsTest, WatchRedrawsUntilItIsInterrupted) {
    make("M1Pro");
    const Result result =
        run("timeout -s INT 2 " + besideThisProgram("simulated-mac") + " watch " + directory());
    EXPECT_NE(result.output.find("held by"), result.output.rfind("held by"));
    const Result once = tool("watch " + directory() + " --for 0.5");
    EXPECT_EQ(once.status, 0);
    EXPECT_EQ(once.output.find("held by"), once.output.rfind("held by"));
}

}  // namespace
