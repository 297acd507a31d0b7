// The texts in which power records travel between the monitor and the helper.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/model/json_codec.h"
#include "core/power/power_transaction.h"
#include "core/power/sleep_blocker.h"
#include "tests/support/failure_text.h"

namespace ferovane {
namespace {

using enum PowerSetting;

TEST(PowerJsonTest, MapsAlternateKeyAndValue) {
    const PowerConfiguration reading{
        {{PowerSource::battery, {{systemSleep, 10}, {displaySleep, 5}}}}};
    EXPECT_EQ(encodeJson(reading), R"({"profiles":["battery",["displaysleep",5,"sleep",10]]})");
    EXPECT_EQ(
        decodeJson<PowerConfiguration>(R"({"profiles":["battery",["sleep",10,"displaysleep",5]]})"),
        reading);
    const auto refusal = [](const char* text) {
        return testing::failureOf([&] { decodeJson<PowerConfiguration>(text); });
    };
    EXPECT_EQ(refusal(R"({"profiles":["battery",["disksleep",10]]})"),
              "JSON 成员 profiles.battery[0] 的取值无法识别");
}

TEST(PowerJsonTest, PlansLeaveOutWhatIsAbsent) {
    const PowerOptimizationPlan small{.source = PowerSource::battery,
                                      .scope = PowerScope::batteryAutomatic};
    const std::string smallText =
        R"({"source":"battery","scope":"batteryAutomatic","lowPower":false,"disableTurbo":false})";
    EXPECT_EQ(encodeJson(small), smallText);
    EXPECT_EQ(decodeJson<PowerOptimizationPlan>(smallText), small);

    const PowerOptimizationPlan full{PowerSource::ac,     PowerScope::current, true, 5, 10, true,
                                     PowerConfiguration{}};
    EXPECT_EQ(encodeJson(full),
              R"({"source":"ac","scope":"current","lowPower":true,"displayMinutes":5,)"
              R"("idleMinutes":10,"disableTurbo":true,"expected":{"profiles":[]}})");
    EXPECT_EQ(decodeJson<PowerOptimizationPlan>(encodeJson(full)), full);
}

TEST(PowerJsonTest, OutcomesCarryTheWholeBackup) {
    PowerBackup backup({{PowerSource::battery, systemSleep, 30, 10}}, 0, Date{700000000.5});
    backup.id = *Uuid::parse("0F0E0D0C-0B0A-4908-8706-050403020100");
    const PowerOutcome outcome{backup, true, 2, Date{700000000}};
    const std::string text =
        R"({"backup":{"id":"0F0E0D0C-0B0A-4908-8706-050403020100","date":700000000.5,)"
        R"("edits":[{"source":"battery","key":"sleep","before":30,"after":10}],"turboBefore":0},)"
        R"("changed":true,"skipped":2,"startedAt":700000000})";
    EXPECT_EQ(encodeJson(outcome), text);
    EXPECT_EQ(decodeJson<PowerOutcome>(text), outcome);
    EXPECT_EQ(encodeJson(PowerOutcome{}), R"({"changed":false,"skipped":0})");
}

TEST(PowerJsonTest, BlockersSayWhoAndWhy) {
    const SleepBlocker blocker{71, "caffeinate", "film", "PreventSystemSleep", Date{10.5}};
    EXPECT_EQ(encodeJson(blocker),
              R"({"pid":71,"name":"caffeinate","reason":"film","type":"PreventSystemSleep",)"
              R"("since":10.5})");
}

}  // namespace
}  // namespace ferovane
