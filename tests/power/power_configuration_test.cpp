// Reading the report of the power-management tool.
#include "core/power/power_configuration.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace ferovane {
namespace {

using Profiles = std::map<PowerSource, PowerConfiguration::Settings>;
using enum PowerSetting;

Profiles parsed(std::string_view text) {
    return PowerConfiguration::parse(text).profiles;
}

TEST(PowerConfigurationTest, ReadsReportsOfRealMachines) {
    EXPECT_EQ(parsed(R"(Battery Power:
 Sleep On Power Button 1
 lowpowermode         1
 standby              1
 ttyskeepawake        1
 hibernatemode        3
 powernap             1
 hibernatefile        /var/vm/sleepimage
 displaysleep         0
 womp                 0
 networkoversleep     0
 sleep                1
 lessbright           1
 tcpkeepalive         1
 disksleep            10
AC Power:
 Sleep On Power Button 1
 lowpowermode         1
 standby              1
 hibernatefile        /var/vm/sleepimage
 displaysleep         0
 womp                 0
 sleep                0
 disksleep            0
)"),
              (Profiles{
                  {PowerSource::ac, {{lowPowerMode, 1}, {displaySleep, 0}, {systemSleep, 0}}},
                  {PowerSource::battery, {{lowPowerMode, 1}, {displaySleep, 0}, {systemSleep, 1}}},
              }));
}

TEST(PowerConfigurationTest, KeepsOnlyWhatIsUnderstood) {
    struct Case {
        const char* what;
        const char* report;
        Profiles expected;
    };
    const auto battery = [](PowerConfiguration::Settings settings) {
        return Profiles{{PowerSource::battery, std::move(settings)}};
    };
    const std::vector<Case> cases{
        {"a header alone records its source", "AC Power:", {{PowerSource::ac, {}}}},
        {"lines before the first header", " sleep 1\nBattery Power:\n sleep 2\n",
         battery({{systemSleep, 2}})},
        {"blanks around lines and headers, a remark, no line feed at the end",
         "  Battery Power: \t\r\n\t sleep \t 10  \r\n displaysleep 240 (prevented by x)",
         battery({{displaySleep, 240}, {systemSleep, 10}})},
        {"headers spelt otherwise", "battery power:\n sleep 1\nBattery Power\n sleep 2\n", {}},
        {"too few fields", "Battery Power:\n sleep\n\n displaysleep 5\n",
         battery({{displaySleep, 5}})},
        {"names must match exactly",
         "Battery Power:\n Sleep 1\n sleepx 1\n disksleep 1\n powermode 1\n", battery({})},
        {"out of range", "Battery Power:\n sleep 241\n displaysleep -1\n lowpowermode 2\n",
         battery({})},
        {"at the ranges' ends",
         "AC Power:\n sleep 240\n displaysleep 0\n lowpowermode 0\n",
         {{PowerSource::ac, {{lowPowerMode, 0}, {displaySleep, 0}, {systemSleep, 240}}}}},
        {"not a decimal integer",
         "Battery Power:\n sleep 10min\n displaysleep 0x5\n lowpowermode 1.0\n", battery({})},
        {"a number beyond 64 bits", "Battery Power:\n sleep 18446744073709551626\n", battery({})},
        {"twice, even when equal", "Battery Power:\n sleep 10\n sleep 10\n displaysleep 5\n",
         battery({{displaySleep, 5}})},
        {"an unusable value is no first time", "Battery Power:\n sleep 300\n sleep 10\n",
         battery({{systemSleep, 10}})},
        {"twice in two sections of one source",
         "Battery Power:\n sleep 10\nAC Power:\n sleep 1\nBattery Power:\n sleep 20\n",
         {{PowerSource::ac, {{systemSleep, 1}}}, {PowerSource::battery, {}}}},
        {"a UPS is neither of the two sources",
         "AC Power:\n sleep 1\nUPS Power:\n sleep 5\n displaysleep 2\n",
         {{PowerSource::ac, {{systemSleep, 1}}}}},
        {"warnings between the lines",
         "Warning: Idle sleep timings for \"Battery Power\" may not behave as expected.\n"
         "- Display sleep should have a lower timeout than system sleep.\n"
         "Battery Power:\n sleep 1\n",
         battery({{systemSleep, 1}})},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(parsed(c.report), c.expected) << c.what;
    }
}

TEST(PowerSettingTest, UsersReadChineseNames) {
    EXPECT_EQ(title(PowerSource::ac), "插电");
    EXPECT_EQ(title(PowerSource::battery), "电池");
    EXPECT_EQ(title(lowPowerMode), "系统低电量模式");
    EXPECT_EQ(title(displaySleep), "显示器休眠");
    EXPECT_EQ(title(systemSleep), "系统闲置休眠");
}

}  // namespace
}  // namespace ferovane
