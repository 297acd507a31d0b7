// Reading the report of the power-management tool.
#include "core/power/power_configuration.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "core/model/json_codec.h"
#include "tests/support/failure_text.h"

namespace ferovane {
namespace {

TEST(PowerConfigurationTest, KeepsOnlyWhatIsUnderstood) {
    const std::string b = "Battery Power:\n ";
    const std::vector<std::pair<std::string, const char*>> cases{
        {b + "Sleep On Power Button 1\n lowpowermode         1\n hibernatefile        /var/vm/x\n"
             " displaysleep         0\n womp                 0\n sleep                1\n"
             "AC Power:\n displaysleep         10\n sleep                0\n",
         R"("ac",["displaysleep",10,"sleep",0],)"
         R"("battery",["lowpowermode",1,"displaysleep",0,"sleep",1])"},
        {"AC Power:", R"("ac",[])"},
        {" sleep 1\n" + b + "sleep 2\n", R"("battery",["sleep",2])"},
        {"  Battery Power: \t\r\n\t sleep \t 10  \r\n displaysleep 240 (prevented by x)",
         R"("battery",["displaysleep",240,"sleep",10])"},
        {"battery power:\n sleep 1\nBattery Power\n sleep 2\n", ""},
        {b + "sleep\n\n displaysleep 5\n", R"("battery",["displaysleep",5])"},
        {b + "Sleep 1\n sleepx 1\n disksleep 1\n powermode 1\n", R"("battery",[])"},
        {b + "sleep 241\n displaysleep -1\n lowpowermode 2\n", R"("battery",[])"},
        {b + "sleep 10min\n displaysleep 0x5\n lowpowermode 1.0\n", R"("battery",[])"},
        {b + "sleep 18446744073709551626\n", R"("battery",[])"},
        // Twice, even when equal; but an unusable value is no first time.
        {b + "sleep 10\n sleep 10\n displaysleep 5\n", R"("battery",["displaysleep",5])"},
        {b + "sleep 300\n sleep 10\n", R"("battery",["sleep",10])"},
        {b + "sleep 10\nAC Power:\n sleep 1\n" + b + "sleep 20\n",
         R"("ac",["sleep",1],"battery",[])"},
        {"Warning: Idle sleep timings for \"Battery Power\" may not behave as expected.\n" + b +
             "sleep 1\n",
         R"("battery",["sleep",1])"},
    };
    for (const auto& [report, profiles] : cases) {
        const auto reading = PowerConfiguration::parse(report);
        const auto text = std::string(R"({"profiles":[)") + profiles + "]}";
        EXPECT_EQ(encodeJson(reading), text) << report;
        EXPECT_EQ(decodeJson<PowerConfiguration>(text), reading);
    }
    EXPECT_EQ(testing::failureOf([] {
                  decodeJson<PowerConfiguration>(R"({"profiles":["battery",["disksleep",10]]})");
              }),
              "JSON 成员 profiles.battery[0] 的取值无法识别");
}

}  // namespace
}  // namespace ferovane
