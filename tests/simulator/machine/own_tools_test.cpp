// A machine's own tools: power settings, kernel extensions, and how they fail.
#include <map>
#include <sstream>

#include "tests/simulator/machine/machine_tools_fixture.h"

namespace {

using namespace simulator;

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
