#include <gtest/gtest.h>

#include <limits>
#include <map>

#include "core/control/control_channel.h"
#include "core/control/control_reply.h"
#include "core/control/control_request.h"
#include "core/model/json_codec.h"
#include "core/model/scope_error.h"
#include "core/model/utf8.h"
#include "tests/support/dice.h"

namespace ferovane {
namespace {

using testing::Dice;
using testing::kNaN;

std::string repeated(std::string_view text, int times) {
    std::string all;
    for (; times > 0; --times) {
        all += text;
    }
    return all;
}

// The rules of a request in their order; the first that is broken speaks.
std::string firstBrokenRule(const ControlRequest& request) {
    const std::string& command = request.command;
    const auto isOne = [](const std::string& word, const std::string& words) {
        return word.find(' ') == word.npos && !word.empty() &&
               (" " + words + " ").find(" " + word + " ") != words.npos;
    };
    if (!isOne(command,
               "hello status profile auto turbo-disable turbo-enable test-fans shutdown "
               "power-optimize power-restore")) {
        return "未知控制命令";
    }
    if (command == "power-optimize" && !request.powerPlan) {
        return "缺少优化方案";
    }
    if (command == "power-optimize" && request.powerPlan->displayMinutes == 3) {
        return "无效的显示器休眠时间";
    }
    if (command == "power-restore" && !request.powerBackup) {
        return "缺少恢复记录";
    }
    if (command == "power-restore" && request.powerBackup->edits[0].after == 300) {
        return "恢复记录无效";
    }
    if (request.powerPlan && command != "power-optimize") {
        return "电源方案命令不匹配";
    }
    if (request.powerBackup && command != "power-restore") {
        return "恢复记录命令不匹配";
    }
    const std::string profile = request.profile.value_or("none");
    if (command == "profile" &&
        !isOne(profile, "automatic eco performance balanced quiet custom")) {
        return "无效模式";
    }
    if (command == "profile" && profile == "custom" && !request.curve) {
        return "缺少曲线";
    }
    if (command == "profile" && profile == "custom" && request.curve->points.empty()) {
        return "曲线需要 2 至 8 个控制点";
    }
    if (request.duration && !(*request.duration > 0 && *request.duration <= 1800)) {
        return "无效控制时长";
    }
    return request.label && request.label->size() > 80 ? "模式名称过长" : "";
}

TEST(ControlRequestTest, TheFirstBrokenRuleSpeaks) {
    const char* const commands[] = {
        "hello",     "status",       "profile",        "profile",       "auto",     "turbo-disable",
        "test-fans", "turbo-enable", "power-optimize", "power-restore", "shutdown", "Hello",
        "",          "status ",      "cooling",        "test-fan"};
    const char* const profiles[] = {"automatic", "eco",    "performance", "balanced", "quiet",
                                    "custom",    "custom", "Custom",      "静音",     ""};
    const std::string labels[] = {std::string(80, 'a'), std::string(81, 'a'), repeated("风", 26),
                                  repeated("风", 27), ""};
    std::map<std::string, int> said;
    Dice dice(1);
    for (int i = 0; i < 20000; ++i) {
        ControlRequest request{.command = commands[dice.upTo(15)]};
        request.profile = dice.maybe(9, std::string(profiles[dice.upTo(9)]));
        request.curve = dice.maybe(3, dice.oneIn(3) ? FanCurve{} : FanCurve::quiet());
        request.duration =
            dice.oneIn(3) ? std::nullopt
                          : std::optional(dice.pick({300, 1800, 0.001, 1800.0001, 0, -0.0, -5, kNaN,
                                                     std::numeric_limits<double>::infinity()}));
        request.label = dice.maybe(2, labels[dice.upTo(4)]);
        if (dice.oneIn(request.command.starts_with("power") ? 2 : 9)) {
            request.powerPlan = {.source = PowerSource::battery,
                                 .displayMinutes = dice.oneIn(3) ? 3 : 5,
                                 .disableTurbo = false};
        }
        if (dice.oneIn(request.command.starts_with("power") ? 2 : 9)) {
            request.powerBackup.emplace().edits = {
                {PowerSource::battery, PowerSetting::displaySleep, 10, dice.oneIn(3) ? 300 : 5}};
        }
        std::string message;
        try {
            request.validate();
            EXPECT_EQ(rawValue(request.knownCommand()), request.command);
        } catch (const ScopeError& error) {
            message = error.message();
        }
        ASSERT_EQ(message, firstBrokenRule(request)) << request.command << " " << i;
        ++said[message];
    }
    EXPECT_EQ(said.size(), 13U);  // every rule, and none
}

TEST(ControlRequestTest, ReadsTheLinesOfAMonitor) {
    EXPECT_EQ(
        decodeJson<ControlRequest>(
            R"({"label":"安静","duration":600,"command":"profile","profile":"custom","curve":)"
            R"({"sensor":"CPU \/ GPU 较高温","points":[{"temperature":30,"percent":0},)"
            R"({"temperature":90,"percent":100}]},"later":{"version":2}})"),
        (ControlRequest{.command = "profile",
                        .profile = "custom",
                        .curve = FanCurve{{{30, 0}, {90, 100}}, CurveSensor::hottest},
                        .duration = 600.0,
                        .label = "安静"}));
    const char* const power =
        R"({"command":"power-optimize","powerPlan":{"source":"battery","scope":"current",)"
        R"("lowPower":true,"displayMinutes":5,"idleMinutes":10,"disableTurbo":false,)"
        R"("expected":{"profiles":)"
        R"(["battery",["displaysleep",5,"sleep",10]]}},"powerBackup":{"id":)"
        R"("0123ABCD-EF45-6789-ABCD-EF0123456789","date":736259400.25,"edits":[)"
        R"({"source":"ac","key":"sleep","before":1,"after":5}],"turboBefore":0}})";
    EXPECT_EQ(encodeJson(decodeJson<ControlRequest>(power)), power);
}

TEST(ControlReplyTest, WritesItsMembersInOrder) {
    EXPECT_EQ(encodeJson(ControlReply{true, "风扇由系统管理"}),
              R"({"ok":true,"message":"风扇由系统管理"})");

    ControlReply reply{true,
                       "控制已确认生效",
                       "S-1",
                       "quiet",
                       "静音",
                       1,
                       FanSessionStatus{1799.5, {{0, 2000}, {1, 1834.25}}, false}};
    reply.power.emplace();
    reply.power->changed = true;
    reply.power->startedAt = Date{736259400};
    EXPECT_EQ(encodeJson(reply),
              R"({"ok":true,"message":"控制已确认生效","session":"S-1","profile":"quiet",)"
              R"("label":"静音","turbo":1,"power":{"changed":true,"skipped":0,)"
              R"("startedAt":736259400},"fanStatus":{"remainingSeconds":1799.5,)"
              R"("targets":[{"id":0,"rpm":2000},{"id":1,"rpm":1834.25}],)"
              R"("protectionActive":false}})");
    EXPECT_EQ(decodeJson<ControlReply>(encodeJson(reply)), reply);
}

TEST(ControlReplyTest, IsShortenedToFitALine) {
    const std::string_view omission = "…（内容过长，中间已省略）…";
    const std::string bracket = R"({"ok":false,"message":""})";
    // Exactly the longest that fits is left alone.
    const ControlReply longest{false, std::string(kMaxControlLineBytes - bracket.size(), 'x')};
    EXPECT_EQ(fittedToLine(longest), longest);

    const std::string megabyte(1 << 20, 'x');
    for (const std::string& message :
         {longest.message + "x", megabyte, repeated("风扇", 9000), repeated("\U0001F600", 9000),
          repeated("\"", 20000), repeated("\n\x01", 20000), repeated("\x80", 20000),
          repeated("a\xE9\xA3", 20000), repeated("风\n", 8000)}) {
        ControlReply reply{false, message, "S-1", "quiet", "静音", 0};
        const ControlReply fitted = fittedToLine(reply);
        const std::string line = encodeJson(fitted);
        EXPECT_LE(line.size(), kMaxControlLineBytes);
        EXPECT_GT(line.size(), kMaxControlLineBytes - 8) << "cut more than it had to";
        EXPECT_EQ(firstInvalidUtf8(fitted.message), std::nullopt);
        const std::size_t cut = fitted.message.find(omission);
        ASSERT_NE(cut, std::string::npos);
        const std::string head = fitted.message.substr(0, cut);
        const std::string tail = fitted.message.substr(cut + omission.size());
        EXPECT_TRUE(repairUtf8(message).starts_with(head) && repairUtf8(message).ends_with(tail));
        EXPECT_NEAR(static_cast<double>(head.size()), static_cast<double>(tail.size()), 8);
        reply.message = fitted.message;
        EXPECT_EQ(fitted, reply);
    }
}

}  // namespace
}  // namespace ferovane
