// Reading and writing settings with a power-management tool that keeps its state.
#include "core/power/native_power_settings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/failure_text.h"

namespace ferovane {
namespace {

using ::testing::ElementsAre;
using testing::failureOf;
using ::testing::IsEmpty;
using enum PowerSetting;
constexpr auto kBattery = PowerSource::battery;

// Prints and stores as the real one does; the commands are kept with their time-outs.
struct FakeTool {
    std::map<std::string, std::map<std::string, std::string>> sections{
        {"AC Power", {{"hibernatefile", "/var/vm/sleepimage"}, {"sleep", "0"}}},
        {"Battery Power", {{"displaysleep", "2"}, {"sleep", "10"}, {"womp", "0"}}},
    };
    std::vector<std::string> commands;
    std::optional<CommandResult> readAnswer, writeAnswer;  // instead of doing anything
    std::string warning;                                   // said by a write that succeeds
    std::function<void()> afterWrite = [] {};

    CommandResult operator()(const std::string& path, const std::vector<std::string>& arguments,
                             double timeout) {
        std::string command = path;
        for (const auto& argument : arguments) {
            command += " " + argument;
        }
        commands.push_back(command + " in " + std::to_string(static_cast<int>(timeout)));
        if (arguments.at(0) == "-g") {
            return readAnswer.value_or(CommandResult{0, report()});
        }
        if (writeAnswer) {
            return *writeAnswer;
        }
        sections[arguments.at(0) == "-c" ? "AC Power" : "Battery Power"][arguments.at(1)] =
            arguments.at(2);
        afterWrite();
        return {0, warning};
    }

    std::string report() const {
        std::string text;
        for (const auto& [section, settings] : sections) {
            text += section + ":\n";
            for (const auto& [name, value] : settings) {
                text += " " + name + std::string(20 - name.size(), ' ') + " " + value + "\n";
            }
        }
        return text;
    }
};

struct NativePowerSettingsTest : ::testing::Test {
    std::string writeFailure(PowerSetting setting, std::int64_t value) {
        return failureOf(
            [&] { NativePowerSettings::write(setting, kBattery, value, std::ref(tool)); });
    }

    FakeTool tool;
};

TEST_F(NativePowerSettingsTest, WritesAndReadsBack) {
    tool.warning =
        "Warning: Idle sleep timings for \"Battery Power\" may not behave as expected.\n";
    NativePowerSettings::write(displaySleep, kBattery, 0, std::ref(tool));
    NativePowerSettings::write(systemSleep, PowerSource::ac, 240, std::ref(tool));
    EXPECT_THAT(
        tool.commands,
        ElementsAre("/usr/bin/pmset -b displaysleep 0 in 12", "/usr/bin/pmset -g custom in 8",
                    "/usr/bin/pmset -c sleep 240 in 12", "/usr/bin/pmset -g custom in 8"));
    const auto now = NativePowerSettings::read(std::ref(tool));
    EXPECT_EQ(now.value(displaySleep, kBattery), 0);
    EXPECT_EQ(now.value(systemSleep, PowerSource::ac), 240);
}

TEST_F(NativePowerSettingsTest, RefusesValuesOutOfRangeWithoutRunningAnything) {
    EXPECT_EQ(writeFailure(displaySleep, 241), "电源参数不在允许范围");
    EXPECT_EQ(writeFailure(systemSleep, -1), "电源参数不在允许范围");
    EXPECT_EQ(writeFailure(lowPowerMode, 2), "电源参数不在允许范围");
    EXPECT_THAT(tool.commands, IsEmpty());
}

TEST_F(NativePowerSettingsTest, PassesOnWhatARefusingToolSays) {
    tool.writeAnswer = CommandResult{1, "'pmset' must be run as root...\n"};
    EXPECT_EQ(writeFailure(systemSleep, 5), "系统电源设置未完成：'pmset' must be run as root...\n");
    EXPECT_EQ(tool.commands.size(), 1U);
}

TEST_F(NativePowerSettingsTest, BelievesOnlyWhatReadsBack) {
    tool.afterWrite = [this] { tool.sections["Battery Power"]["sleep"] = "11"; };
    EXPECT_EQ(writeFailure(systemSleep, 5), "系统电源设置读回不一致");

    // The tool of some machines takes the old name and stores it under another one.
    tool.afterWrite = [this] {
        tool.sections["Battery Power"].erase("lowpowermode");
        tool.sections["Battery Power"]["powermode"] = "1";
    };
    EXPECT_EQ(writeFailure(lowPowerMode, 1), "系统电源设置读回不一致");

    tool.afterWrite = [this] { tool.sections.erase("Battery Power"); };
    EXPECT_EQ(writeFailure(systemSleep, 5), "系统电源设置读回不一致");
}

TEST_F(NativePowerSettingsTest, ReadingFailsWithTheTool) {
    tool.readAnswer = CommandResult{64, tool.report()};
    EXPECT_EQ(failureOf([this] { NativePowerSettings::read(std::ref(tool)); }), "电源设置读取失败");
    EXPECT_EQ(writeFailure(systemSleep, 5), "电源设置读取失败");
}

TEST_F(NativePowerSettingsTest, FailuresToRunTheToolPassUnchanged) {
    const ToolRunner hangs = [](const auto&, const auto&, double) -> CommandResult {
        throw ScopeError("命令超时。请刷新状态确认结果。");
    };
    EXPECT_EQ(failureOf([&] { NativePowerSettings::write(systemSleep, kBattery, 5, hangs); }),
              "命令超时。请刷新状态确认结果。");
}

}  // namespace
}  // namespace ferovane
