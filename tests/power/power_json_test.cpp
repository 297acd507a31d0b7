// The texts in which power records travel between the monitor and the helper.
#include <gtest/gtest.h>

#include <string>

#include "core/model/json_codec.h"
#include "core/power/power_transaction.h"
#include "core/power/sleep_blocker.h"

namespace ferovane {
namespace {

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
    PowerBackup backup({{PowerSource::battery, PowerSetting::systemSleep, 30, 10}}, 0,
                       Date{700000000.5});
    backup.id = *Uuid::parse("0F0E0D0C-0B0A-4908-8706-050403020100");
    const PowerOutcome outcome{backup, true, 2, Date{700000000}};
    const std::string text =
        R"({"backup":{"id":"0F0E0D0C-0B0A-4908-8706-050403020100","date":700000000.5,)"
        R"("edits":[{"source":"battery","key":"sleep","before":30,"after":10}],"turboBefore":0},)"
        R"("changed":true,"skipped":2,"startedAt":700000000})";
    EXPECT_EQ(encodeJson(outcome), text);
    EXPECT_EQ(decodeJson<PowerOutcome>(text), outcome);
    EXPECT_EQ(encodeJson(PowerOutcome{}), R"({"changed":false,"skipped":0})");
    EXPECT_EQ(encodeJson(SleepBlocker{71, "caffeinate", "film", "PreventSystemSleep", Date{10.5}}),
              R"({"pid":71,"name":"caffeinate","reason":"film","type":"PreventSystemSleep",)"
              R"("since":10.5})");
}

}  // namespace
}  // namespace ferovane
