// Reading and writing settings with a power-management tool that keeps its state.
#include "core/power/native_power_settings.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/failure_text.h"

namespace ferovane {
namespace {

using enum PowerSetting;

// Prints and stores as the real one does; the commands are kept with their time-outs.
struct FakeTool {
    std::map<std::string, std::map<std::string, std::string>> sections{
        {"AC Power", {{"hibernatefile", "/var/vm/sleepimage"}, {"sleep", "0"}}},
        {"Battery Power", {{"displaysleep", "2"}, {"sleep", "10"}, {"womp", "0"}}},
    };
    std::string commands;
    std::optional<CommandResult> readAnswer, writeAnswer;  // instead of doing anything
    std::function<void()> afterWrite = [] {};

    CommandResult operator()(const std::string& path, const std::vector<std::string>& arguments,
                             double timeout) {
        commands += path;
        for (const auto& argument : arguments) {
            commands += " " + argument;
        }
        commands += " in " + std::to_string(static_cast<int>(timeout)) + "\n";
        if (arguments.at(0) == "-g") {
            return readAnswer.value_or(CommandResult{0, report()});
        }
        if (writeAnswer) {
            return *writeAnswer;
        }
        sections[arguments.at(0) == "-c" ? "AC Power" : "Battery Power"][arguments.at(1)] =
            arguments.at(2);
        afterWrite();
        return {0,
                "Warning: Idle sleep timings for \"Battery Power\" may not behave as expected.\n"};
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

TEST(NativePowerSettingsTest, WritesAndReadsBack) {
    FakeTool tool;
    NativePowerSettings::write(displaySleep, PowerSource::battery, 0, std::ref(tool));
    NativePowerSettings::write(systemSleep, PowerSource::ac, 240, std::ref(tool));
    EXPECT_EQ(tool.commands,
              "/usr/bin/pmset -b displaysleep 0 in 12\n/usr/bin/pmset -g custom in 8\n"
              "/usr/bin/pmset -c sleep 240 in 12\n/usr/bin/pmset -g custom in 8\n");
    EXPECT_EQ(tool.sections["Battery Power"]["displaysleep"], "0");
    EXPECT_EQ(tool.sections["AC Power"]["sleep"], "240");
}

TEST(NativePowerSettingsTest, BelievesOnlyWhatWasSaidAndReadsBack) {
    struct Case {
        std::string failure;
        PowerSetting setting;
        std::int64_t value;
        int commands;
        std::function<void(FakeTool&)> arrange;
    };
    const auto afterWrite = [](auto change) {
        return [change](FakeTool& tool) { tool.afterWrite = [&tool, change] { change(tool); }; };
    };
    const char* differs = "系统电源设置读回不一致";
    const auto nothing = [](auto&) {};
    const std::vector<Case> cases{
        {"电源参数不在允许范围", displaySleep, 241, 0, nothing},
        {"电源参数不在允许范围", systemSleep, -1, 0, nothing},
        {"电源参数不在允许范围", lowPowerMode, 2, 0, nothing},
        {"系统电源设置未完成：'pmset' must be run as root...\n", systemSleep, 5, 1,
         [](auto& tool) {
             tool.writeAnswer = {1, "'pmset' must be run as root...\n"};
         }},
        {"电源设置读取失败", systemSleep, 5, 2,
         [](auto& tool) {
             tool.readAnswer = {64, "Battery Power:\n sleep 5\n"};
         }},
        {"磁盘空间不足，无法取得电源设置", systemSleep, 5, 2,
         [](auto& tool) {
             tool.readAnswer = {1, "Battery Power:\n sleep 5\n", true};
         }},
        {differs, systemSleep, 5, 2,
         afterWrite([](auto& tool) { tool.sections["Battery Power"]["sleep"] = "11"; })},
        {differs, systemSleep, 5, 2,
         afterWrite([](auto& tool) { tool.sections.erase("Battery Power"); })},
        // The tool of some machines takes the old name and stores it under another one.
        {differs, lowPowerMode, 1, 2, afterWrite([](auto& tool) {
             tool.sections["Battery Power"].erase("lowpowermode");
             tool.sections["Battery Power"]["powermode"] = "1";
         })},
        {"命令超时。请刷新状态确认结果。", systemSleep, 5, 1,
         afterWrite([](auto&) { throw ScopeError("命令超时。请刷新状态确认结果。"); })},
    };
    for (const auto& c : cases) {
        FakeTool tool;
        c.arrange(tool);
        EXPECT_EQ(testing::failureOf([&] {
                      NativePowerSettings::write(c.setting, PowerSource::battery, c.value,
                                                 std::ref(tool));
                  }),
                  c.failure);
        EXPECT_EQ(std::count(tool.commands.begin(), tool.commands.end(), '\n'), c.commands)
            << c.failure;
    }
}

}  // namespace
}  // namespace ferovane
