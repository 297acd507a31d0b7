// Reading and writing settings: what is run, and what counts as done.
#include "core/power/native_power_settings.h"

#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <vector>

#include "tests/support/failure_text.h"

namespace ferovane {
namespace {

using enum PowerSetting;

TEST(NativePowerSettingsTest, BelievesOnlyWhatWasSaidAndReadsBack) {
    struct Case {
        PowerSetting setting;
        std::int64_t value;
        std::deque<CommandResult> results;  // the tool's; none: it is late
        std::string failure, commands;
    };
    const std::string wrote = "/usr/bin/pmset -b sleep 5 in 12\n";
    const std::string both = wrote + "/usr/bin/pmset -g custom in 8\n";
    const std::string low =
        "/usr/bin/pmset -b lowpowermode 1 in 12\n/usr/bin/pmset -g custom in 8\n";
    const std::string range = "电源参数不在允许范围", differs = "系统电源设置读回不一致";
    const std::string late = "命令超时。请刷新状态确认结果。", battery = "Battery Power:\n ";
    const CommandResult warned{0, "Warning: Idle sleep timings may not behave as expected.\n"};
    const std::vector<Case> cases{
        {systemSleep, 5, {warned, {0, "AC Power:\n sleep 1\n" + battery + "sleep 5"}}, "", both},
        {lowPowerMode, 1, {warned, {0, battery + "lowpowermode 1"}}, "", low},
        {displaySleep, 241, {}, range, ""},
        {systemSleep, 5, {{1, "root!\n"}}, "系统电源设置未完成：root!\n", wrote},
        {systemSleep, 5, {}, late, wrote},
        {systemSleep, 5, {warned}, late, both},
        {systemSleep, 5, {warned, {64, battery + "sleep 5"}}, "电源设置读取失败", both},
        {systemSleep,
         5,
         {warned, {1, battery + "sleep 5", true}},
         "磁盘空间不足，无法取得电源设置",
         both},
        {systemSleep, 5, {warned, {0, battery + "sleep 11"}}, differs, both},
        {systemSleep, 5, {warned, {0, "AC Power:\n sleep 5"}}, differs, both},
        // The tool of some machines takes the old name and stores it under another one.
        {lowPowerMode, 1, {warned, {0, battery + "powermode 1"}}, differs, low},
    };
    for (auto c : cases) {
        std::string commands;
        const auto run = [&](const std::string& path, const std::vector<std::string>& arguments,
                             double timeout) {
            commands += path;
            for (const auto& argument : arguments) {
                commands += " " + argument;
            }
            commands += " in " + std::to_string(static_cast<int>(timeout)) + "\n";
            if (c.results.empty()) {
                throw ScopeError(late);
            }
            const auto result = c.results.front();
            c.results.pop_front();
            return result;
        };
        EXPECT_EQ(testing::failureOf([&] {
                      NativePowerSettings::write(c.setting, PowerSource::battery, c.value, run);
                  }),
                  c.failure);
        EXPECT_EQ(commands, c.commands) << c.failure;
    }
}

}  // namespace
}  // namespace ferovane
