// The tool and the machine's own tools, as processes.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include "simulator/machine/simulated_mac.h"
#include "tests/simulator/machine/scratch_directory.h"

namespace {

using namespace simulator;
namespace fs = std::filesystem;

std::string quoted(const std::string& word) {
    return "'" + word + "'";
}

std::string besideThisProgram(const std::string& name) {
    return (fs::read_symlink("/proc/self/exe").parent_path() / name).string();
}

struct Result {
    int status = -1;
    std::string output;  // standard output only
    std::string errors;
};

class MachineToolsTest : public testing::Test {
protected:
    Result run(const std::string& command) {
        const std::string errors = scratch_.path("errors");
        std::FILE* pipe = ::popen((command + " 2>" + errors).c_str(), "r");
        Result result;
        std::array<char, 4096> piece = {};
        for (std::size_t got = 0; (got = std::fread(piece.data(), 1, piece.size(), pipe)) > 0;) {
            result.output.append(piece.data(), got);
        }
        const int status = ::pclose(pipe);
        result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
        std::ifstream file(errors);
        result.errors.assign(std::istreambuf_iterator<char>(file), {});
        return result;
    }
    Result tool(const std::string& words) {
        return run(besideThisProgram("simulated-mac") + " " + words);
    }
    std::string own(const std::string& name) { return directory() + "/root/usr/bin/" + name; }
    Result pmset(const std::string& words) { return run(own("pmset") + " " + words); }
    Result kmutil(const std::string& words) { return run(own("kmutil") + " " + words); }
    std::string directory() const { return scratch_.path("mac"); }

    SimulatedMac make(const char* model) {
        SimulatedMac mac = createMachineDirectory(directory(), model);
        mac.set(Property::kPrivileged, 1);
        return mac;
    }

    ScratchDirectory scratch_;
};

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
        {"create " + mac + "2 --model Apple2", 1, "unknown model \"Apple2\""},
        {"show", 2, "a machine directory is needed"},
        {"show /", 1, "there is no simulated Mac in /"},
        {"show " + mac + " --yaml", 2, "unknown option --yaml"},
        {"set " + mac + " weather=1", 2, "unknown name: weather=1"},
        {"set " + mac + " load=much", 2, "not a number: load=much"},
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

std::map<std::string, std::map<std::string, std::string>> sectionsIn(const std::string& print) {
    std::map<std::string, std::map<std::string, std::string>> sections;
    std::istringstream lines(print);
    std::string source;
    for (std::string line; std::getline(lines, line);) {
        if (line.back() == ':') {
            source = line.substr(0, line.size() - 1);
            continue;
        }
        EXPECT_EQ(line.front(), ' ');
        const std::size_t gap = line.rfind(' ');
        std::string name = line.substr(1, gap - 1);
        name.erase(name.find_last_not_of(' ') + 1);
        sections[source][name] = line.substr(gap + 1);
    }
    return sections;
}

TEST_F(MachineToolsTest, PmsetPrintsTheSameSettingsInNoFixedOrder) {
    make("MacBookPro16,1");
    const Result first = pmset("-g custom");
    const Result second = pmset("-g custom");
    EXPECT_EQ(first.status, 0);
    EXPECT_NE(first.output, second.output);
    EXPECT_EQ(sectionsIn(first.output), sectionsIn(second.output));
    const auto sections = sectionsIn(first.output);
    ASSERT_EQ(sections.size(), 2U);
    EXPECT_EQ(sections.at("Battery Power").at("displaysleep"), "2");
    EXPECT_EQ(sections.at("AC Power").at("Sleep On Power Button"), "1");
    EXPECT_EQ(sections.at("AC Power").at("hibernatefile"), "/var/vm/sleepimage");
    EXPECT_NE(first.output.find("\n displaysleep         2\n"), std::string::npos) << "padded";
}

TEST_F(MachineToolsTest, PmsetChangesOneSourceAndWarnsWithoutFailing) {
    SimulatedMac mac = make("MacBookPro16,1");
    EXPECT_EQ(pmset("-c displaysleep 5 sleep 15").status, 0);
    EXPECT_EQ(mac.powerSetting("AC Power", "displaysleep"), "5");
    EXPECT_EQ(mac.powerSetting("Battery Power", "displaysleep"), "2");
    const Result odd = pmset("-b displaysleep 30");
    EXPECT_EQ(odd.status, 0);
    EXPECT_EQ(odd.output, "");
    EXPECT_EQ(odd.errors,
              "Warning: Idle sleep timings for \"Battery Power\" may not behave as expected.\n"
              "- Display sleep should have a lower timeout than system sleep.\n");
    EXPECT_EQ(pmset("-a lowpowermode 1").status, 0);
    EXPECT_EQ(mac.value(Property::kLowPowerFlag), 1) << "on battery, whose mode is on now";
}

TEST_F(MachineToolsTest, PmsetRefusesAsTheRealOneDoes) {
    SimulatedMac mac = make("MacBookPro11,4");
    const std::string usage = "Usage: pmset <options>\nSee pmset(1) for details: 'man pmset'\n";
    struct {
        const char* words;
        std::string output;
    } const cases[] = {
        {"", usage},
        {"-c displaysleep", usage},
        {"-c displaysleep ten", usage},
        {"-c displaysleep -5", usage},
        {"-c teatime 5", usage},
        {"-c lowpowermode 1", "<LowPowerMode> not supported on <AC Power>\n" + usage},
    };
    const auto before = mac.powerSettings();
    for (const auto& wanted : cases) {
        const Result result = pmset(wanted.words);
        EXPECT_EQ(result.status, 1) << wanted.words;
        EXPECT_EQ(result.output, wanted.output) << wanted.words;
    }
    mac.set(Property::kPrivileged, 0);
    const Result unprivileged = pmset("-c sleep 5");
    EXPECT_EQ(unprivileged.status, 1);
    EXPECT_EQ(unprivileged.output, "'pmset' must be run as root...\n");
    const auto after = mac.powerSettings();
    for (std::size_t i = 0; i < before.size(); ++i) {
        EXPECT_EQ(after[i].value, before[i].value) << before[i].name;
    }
}

TEST_F(MachineToolsTest, MachinesWithHighPowerModeKeepTheOldNameNowhere) {
    SimulatedMac mac = make("M4Max");
    EXPECT_EQ(pmset("-c lowpowermode 1").status, 0);
    EXPECT_EQ(mac.powerSetting("AC Power", "lowpowermode"), std::nullopt);
    EXPECT_EQ(mac.powerSetting("AC Power", "powermode"), "1");
    const Result wrong = pmset("-c powermode 3");
    EXPECT_EQ(wrong.status, 1);
    EXPECT_EQ(wrong.output, "Unsupported mode 3\n");
}

TEST_F(MachineToolsTest, KmutilLoadsWhatItFindsAndWhatIsApproved) {
    SimulatedMac mac = make("MacBookPro16,1");
    const std::string identifier = "com.vorandel.DisableTurboBoost";
    const std::string bundle = quoted(
        "/Applications/Turbo Boost Switcher.app/Contents/Resources/DisableTurboBoost.64bits.kext");
    const auto loaded = [&mac] { return mac.value(Property::kExtensionLoaded) == 1; };
    EXPECT_EQ(kmutil("load -b " + identifier).status, 0);
    EXPECT_TRUE(loaded());
    EXPECT_EQ(kmutil("unload -b " + identifier).status, 0);
    EXPECT_FALSE(loaded());
    const Result again = kmutil("unload -b " + identifier);
    EXPECT_EQ(again.status, 1);
    EXPECT_NE(again.errors.find("not found for unload request"), std::string::npos);

    mac.set(Property::kTurboApplications, kTurboApplication);
    const Result unknown = kmutil("load -b " + identifier);
    EXPECT_EQ(unknown.status, 71);
    EXPECT_NE(unknown.errors.find("Code=71 \"Could not find: No bundle was found at"),
              std::string::npos);
    EXPECT_EQ(kmutil("load -p " + bundle).status, 0);
    EXPECT_TRUE(loaded());
    mac.set(Property::kExtensionLoaded, 0);

    struct {
        ExtensionApproval approval;
        int status;
        const char* text;
    } const cases[] = {
        {ExtensionApproval::kNotApproved, 27, "Code=27 \"Extension with identifiers"},
        {ExtensionApproval::kRestartRequired, 28, "requires a reboot"},
        {ExtensionApproval::kNotLoadable, 71, "Kernel request failed"},
    };
    for (const auto& wanted : cases) {
        mac.set(Property::kExtensionApproval, static_cast<double>(wanted.approval));
        const Result result = kmutil("load -p " + bundle);
        EXPECT_EQ(result.status, wanted.status);
        EXPECT_NE(result.errors.find(wanted.text), std::string::npos) << result.errors;
        EXPECT_FALSE(loaded());
    }
}

TEST_F(MachineToolsTest, ToolsFailHangAndRant) {
    SimulatedMac mac = make("MacBookPro16,1");
    mac.toolFails("pmset", 7, "no energy", kOnce);
    const Result failed = pmset("-g custom");
    EXPECT_EQ(failed.status, 7);
    EXPECT_EQ(failed.errors, "no energy\n");
    EXPECT_EQ(pmset("-g custom").status, 0) << "once only";

    mac.toolPrintsMegabyte("pmset", kOnce);
    EXPECT_GT(pmset("-g custom").output.size(), 1U << 20U);
    mac.toolPrintsGarbage("", kOnce);
    EXPECT_NE(kmutil("showloaded").output.find('\xFF'), std::string::npos);

    mac.toolIgnoresChange("pmset", kOnce);
    EXPECT_EQ(pmset("-c sleep 42").status, 0);
    EXPECT_EQ(mac.powerSetting("AC Power", "sleep"), "10");

    mac.toolHangs("kmutil", kOnce);
    EXPECT_EQ(run("timeout 0.3 " + own("kmutil") + " showloaded").status, 124);
    mac.toolIgnoresSigterm("kmutil", kOnce);
    EXPECT_EQ(run("timeout -k 0.3 0.3 " + own("kmutil") + " showloaded").status, 137);
    EXPECT_EQ(kmutil("showloaded").status, 0);
}

}  // namespace
