// Which power assertions count as keeping the machine awake.
#include "core/power/sleep_blocker.h"

#include <gtest/gtest.h>

#include <array>
#include <limits>
#include <string>
#include <vector>

#include "core/model/json_codec.h"
#include "tests/support/failure_text.h"

namespace ferovane {
namespace {

constexpr double kUnknown = std::numeric_limits<double>::quiet_NaN();

// The system gives no order: these stand in none.
constexpr std::array<FVPowerAssertion, 12> kAssertions{{
    {600, 255, "PreventUserIdleSystemSleep", "playing", "coreaudiod", kUnknown},
    {71, 255, "PreventSystemSleep", "b", "caffeinate", 20.5},
    {71, 255, "PreventSystemSleep", "b", "caffeinate", 10.5},
    {71, 255, "PreventSystemSleep", "a", "caffeinate", 30},
    {71, 255, "PreventUserIdleDisplaySleep", "film", "caffeinate", 0},
    {71, 1, "PreventUserIdleSystemSleep", nullptr, nullptr, kUnknown},
    {80, 0, "PreventUserIdleDisplaySleep", "level 0", "x", 1},
    {80, -1, "PreventSystemSleep", "below 0", "x", 1},
    {80, 255, "UserIsActive", "another type", "x", 1},
    {80, 255, "preventsystemsleep", "spelt otherwise", "x", 1},
    {80, 255, "NoIdleSleepAssertion", "the old name", "x", 1},
    {80, 255, nullptr, "no type", "x", 1},
}};

int visitAll(fv_assertion_visitor visit, void* context) {
    for (const auto& assertion : kAssertions) {
        visit(context, &assertion);
    }
    return 0;
}

TEST(SleepBlockerTest, KeepsBlockingAssertionsInOneOrder) {
    const std::vector<SleepBlocker> expected{
        {71, "caffeinate", "a", "PreventSystemSleep", Date{30}},
        {71, "caffeinate", "b", "PreventSystemSleep", Date{10.5}},
        {71, "caffeinate", "b", "PreventSystemSleep", Date{20.5}},
        {71, "caffeinate", "film", "PreventUserIdleDisplaySleep", Date{0}},
        {71, "未知进程", "", "PreventUserIdleSystemSleep", std::nullopt},
        {600, "coreaudiod", "playing", "PreventUserIdleSystemSleep", std::nullopt},
    };
    EXPECT_EQ(SleepBlocker::read(visitAll), expected);
    EXPECT_EQ(expected[1].id(), expected[2].id());
    EXPECT_EQ(expected[0].id(), "71:PreventSystemSleep:caffeinate");
    EXPECT_EQ(encodeJson(expected[1]), R"({"pid":71,"name":"caffeinate","reason":"b",)"
                                       R"("type":"PreventSystemSleep","since":10.5})");
}

TEST(SleepBlockerTest, NoAnswerIsNotAnEmptyOne) {
    EXPECT_EQ(SleepBlocker::read([](fv_assertion_visitor, void*) { return 0; }).size(), 0U);
    const auto read = [] {
        SleepBlocker::read([](fv_assertion_visitor visit, void* context) {
            visit(context, kAssertions.data());
            return -536870160;
        });
    };
    EXPECT_EQ(testing::failureOf(read), "休眠阻止状态不可读取");
}

}  // namespace
}  // namespace ferovane
