// The simulator's tool, and a machine's own tools, as processes.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "simulator/machine/simulated_mac.h"
#include "tests/simulator/machine_fixture.h"

namespace {

using namespace simulator;
namespace fs = std::filesystem;

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
        result.status = WEXITSTATUS(::pclose(pipe));
        std::ifstream file(errors);
        result.errors.assign(std::istreambuf_iterator<char>(file), {});
        return result;
    }
    Result tool(const std::string& words) {
        return run(besideThisProgram("simulated-mac") + " " + words);
    }
    Result pmset(const std::string& words) { return run(own_ + "pmset " + words); }

    SimulatedMac make(const char* model) {
        SimulatedMac mac = createMachineDirectory(mac_, model);
        mac.set(Property::kPrivileged, 1);
        return mac;
    }

    ScratchDirectory scratch_;
    std::string mac_ = scratch_.path("mac");
    std::string own_ = mac_ + "/root/usr/bin/";
};

TEST_F(MachineToolsTest, AMachineIsToldWhatItIsWhenItIsMade) {
    EXPECT_EQ(tool("create " + mac_ +
                   " --model MacBookPro16,1 model=MacBookPro15,2 'brand=Intel(R) i5-8259U' "
                   "system-version=13.6 processors=4 manual-mode=unlock memory-pressure=absent "
                   "turbo-applications=pro in=3600 load=5")
                  .status,
              0);
    SimulatedMac mac = openMachineDirectory(mac_);
    EXPECT_EQ(tool("show " + mac_).output.find("MacBookPro15,2   Intel(R) i5-8259U   macOS 13.6 "),
              0U);
    EXPECT_EQ(mac.value(Property::kProcessors), 4);
    EXPECT_EQ(mac.value(Property::kAvailableCpus), 4);
    EXPECT_EQ(mac.value(Property::kManualMode), 1);
    EXPECT_EQ(mac.value(Property::kMemoryPressure), std::nullopt);
    EXPECT_TRUE(fs::exists(mac_ + "/root/Applications/Turbo Boost Switcher Pro.app/Contents"));
    EXPECT_EQ(tool("fault " + mac_ + " list").output.find("set property=load value=5 at=36"), 0U);
}

TEST_F(MachineToolsTest, WrongUseIsSaidInEnglishOnStandardError) {
    make("M1Pro");
    struct {
        std::string words;
        int status;
        const char* problem;
    } const cases[] = {
        {"", 2, "Usage:"},
        {"create " + mac_ + "2 --keys /no/such/file", 1, "cannot read /no/such/file"},
        {"create " + mac_ + "2 --keys /dev/zero", 1, "/dev/zero is too large"},
        {"create -mac --model M1Pro", 2, "a machine directory is needed"},
        {"create " + mac_ + "2 --model Apple2", 1, "unknown model \"Apple2\""},
        {"create " + mac_ + "2 --model M1Pro weather=1", 2, "unknown name: weather=1"},
        {"create " + mac_ + " --model M1Pro", 1, "there is a simulated Mac in"},
        {"show " + mac_ + " --yaml", 2, "unknown option --yaml"},
        {"set " + mac_ + " load=nan", 2, "not a number: load=nan"},
        {"set " + mac_ + " sleep=-1", 2, "time does not go back: sleep=-1"},
        {"write " + mac_ + " Nope 1", 1, "the machine has no key Nope"},
        {"fault " + mac_ + " hiccup", 2, "unknown fault: hiccup"},
        {"run " + mac_ + " -- /no/such/program", 127, "cannot run /no/such/program"},
    };
    for (const auto& wanted : cases) {
        const Result result = tool(wanted.words);
        EXPECT_EQ(result.status, wanted.status) << wanted.words;
        EXPECT_NE(result.errors.find(wanted.problem), std::string::npos) << result.errors;
        EXPECT_EQ(result.output, "") << wanted.words;
    }
    EXPECT_FALSE(fs::exists(mac_ + "2"));
}

TEST_F(MachineToolsTest, PmsetSaysWhatTheRealOneSays) {
    SimulatedMac mac = make("MacBookPro16,1");
    const Result first = pmset("-g custom");
    EXPECT_NE(first.output, pmset("-g custom").output) << "no fixed order";
    EXPECT_NE(first.output.find("\n displaysleep         2\n"), std::string::npos) << "padded";
    EXPECT_NE(first.output.find("Battery Power:\n"), std::string::npos);
    EXPECT_EQ(pmset("-b displaysleep 30").errors,
              "Warning: Idle sleep timings for \"Battery Power\" may not behave as expected.\n"
              "- Display sleep should have a lower timeout than system sleep.\n");
    EXPECT_EQ(pmset("-a lowpowermode 1").status, 0);
    EXPECT_EQ(mac.value(Property::kLowPowerFlag), 1) << "on battery, whose mode is on now";
    mac.removePowerSetting("AC Power", "lowpowermode");
    const std::string usage = "Usage: pmset <options>\nSee pmset(1) for details: 'man pmset'\n";
    for (const char* words : {"", "-c displaysleep", "-c displaysleep -5", "-c teatime 5"}) {
        EXPECT_EQ(pmset(words).output, usage) << words;
        EXPECT_EQ(pmset(words).status, 1) << words;
    }
    EXPECT_EQ(pmset("-c lowpowermode 1").output,
              "<LowPowerMode> not supported on <AC Power>\n" + usage);
    mac.set(Property::kPrivileged, 0);
    EXPECT_EQ(pmset("-c sleep 5").output, "'pmset' must be run as root...\n");
}

}  // namespace
