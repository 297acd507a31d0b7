#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "core/control/control_channel.h"
#include "core/control/control_reply.h"
#include "core/control/control_request.h"
#include "core/model/json_codec.h"
#include "core/model/scope_error.h"
#include "core/model/utf8.h"
#include "tests/support/dice.h"
#include "tests/support/failure_text.h"

namespace ferovane {
namespace {

std::string repeated(std::string_view text, int times) {
    std::string all;
    for (; times > 0; --times) {
        all += text;
    }
    return all;
}

// Each breaks a rule or two; of two the first speaks.
TEST(ControlRequestTest, TheFirstBrokenRuleSpeaks) {
    const std::string
        plan =
            R"("power-optimize","powerPlan":{"source":"battery","scope":"current","lowPower":false,)"
            R"("disableTurbo":false,"displayMinutes":)",
        backup = R"("power-restore","powerBackup":{"id":)"
                 R"("0123ABCD-EF45-6789-ABCD-EF0123456789","date":0,"edits":[{"source":"ac",)"
                 R"("key":"displaysleep","before":1,"after":)";
    const auto foreign = [](const std::string& it) {
        return R"("auto")" + it.substr(it.find(','));
    };
    const std::string custom = R"("profile","profile":"custom")", longLabel = repeated("风", 27);
    const std::string noPoints = R"(,"curve":{"sensor":"CPU","points":[]})";
    const std::pair<std::string, const char*> cases[] = {
        {R"("Hello","duration":0)", "未知控制命令"},
        {R"("status ")", "未知控制命令"},
        {R"("")", "未知控制命令"},
        {R"("power-optimize","duration":0)", "缺少优化方案"},
        {plan + "5}", ""},
        {plan + R"(3},"duration":0)", "无效的显示器休眠时间"},
        {R"("power-restore")", "缺少恢复记录"},
        {backup + "5}]}", ""},
        {backup + R"(300}]},"duration":0)", "恢复记录无效"},
        {foreign(plan) + R"(3},"duration":0)", "电源方案命令不匹配"},
        {foreign(backup) + R"(300}]},"duration":0)", "恢复记录命令不匹配"},
        {R"("profile","duration":0)", "无效模式"},
        {R"("profile","profile":"Custom")", "无效模式"},
        {R"("profile","profile":"quiet")" + noPoints, ""},
        {custom + R"(,"duration":0)", "缺少曲线"},
        {custom + noPoints + R"(,"duration":0)", "曲线需要 2 至 8 个控制点"},
        {R"("auto")" + noPoints, ""},
        {R"("profile","profile":"eco","duration":0.001)", ""},
        {R"("auto","duration":1800,"label":")" + repeated("a", 80) + "\"", ""},
        {R"("auto","duration":1800.0001,"label":")" + longLabel + "\"", "无效控制时长"},
        {R"("hello","duration":-5)", "无效控制时长"},
        {R"("test-fans","duration":0)", "无效控制时长"},
        {R"("auto","label":")" + longLabel + "\"", "模式名称过长"},
    };
    for (const auto& [members, message] : cases) {
        const auto request = decodeJson<ControlRequest>(R"({"command":)" + members + "}");
        EXPECT_EQ(testing::failureOf([&] { request.validate(); }), message) << members;
    }
    const std::string longest = "\"" + repeated("i", 64) + "\"";
    for (const std::string& id : {std::string("-9223372036854775808"), longest}) {
        const std::string text = R"({"command":"auto","id":)" + id + "}";
        const auto request = decodeJson<ControlRequest>(text);
        request.validate();
        EXPECT_EQ(encodeJson(request), text);
        EXPECT_EQ(requestIdIn(R"({"command":[],"id":)" + id + "}"), request.id);
    }
    const std::pair<std::string, const char*> noIds[] = {
        {"null", ""},
        {"\"é" + longest.substr(2), "请求编号过长"},
        {"true", "JSON 成员 id 应为文本或整数"},
        {"1.5", "JSON 成员 id 应为文本或整数"},
        {R"(7,"id":7)", "JSON 成员 id 重复出现"},
    };
    for (const auto& [id, message] : noIds) {
        const std::string line = R"({"command":"auto","id":)" + id + "}";
        EXPECT_EQ(testing::failureOf([&] { decodeJson<ControlRequest>(line).validate(); }),
                  message);
        EXPECT_EQ(requestIdIn(line), std::nullopt) << id;
    }
    std::string words;
    for (const auto& [command, word] : RawEnum<ControlCommand>::cases) {
        words.append(word).append(" ");
    }
    EXPECT_EQ(words,
              "hello status profile auto turbo-disable turbo-enable test-fans shutdown "
              "power-optimize power-restore ");
    EXPECT_THROW((ControlRequest{.command = "auto", .duration = testing::kNaN}.validate()),
                 ScopeError);
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
    reply.id = RequestId{"r1"};
    reply.code = rawValue(ResultCode::confirmed);
    reply.ended = LeaseEnding{"S-0", "time", "控制时间已到"};
    EXPECT_EQ(encodeJson(reply),
              R"({"ok":true,"message":"控制已确认生效","session":"S-1","profile":"quiet",)"
              R"("label":"静音","turbo":1,"power":{"changed":true,"skipped":0,)"
              R"("startedAt":736259400},"fanStatus":{"remainingSeconds":1799.5,)"
              R"("targets":[{"id":0,"rpm":2000},{"id":1,"rpm":1834.25}],)"
              R"("protectionActive":false},"id":"r1","code":"confirmed",)"
              R"("ended":{"session":"S-0","reason":"time","message":"控制时间已到"}})");
    EXPECT_EQ(decodeJson<ControlReply>(encodeJson(reply)), reply);
}

// That it then fits and is otherwise as it was is the business of its fuzz door.
TEST(ControlReplyTest, IsShortenedInTheMiddle) {
    const std::string_view omission = "…（内容过长，中间已省略）…";
    const std::string bracket = R"({"ok":false,"message":""})";
    // Exactly the longest that fits is left alone.
    const ControlReply longest{false, std::string(kMaxControlLineBytes - bracket.size(), 'x')};
    EXPECT_EQ(fittedToLine(longest), longest);

    for (const std::string& message :
         {longest.message + "x", repeated("x", 1 << 20), repeated("风扇", 9000),
          repeated("\U0001F600", 9000), repeated("\"", 20000), repeated("\n\x01", 20000),
          repeated("\x80", 20000), repeated("a\xE9\xA3", 20000), repeated("风\n", 8000)}) {
        const ControlReply reply{false, message, "S-1", "quiet", "静音", 0};
        const ControlReply fitted = fittedToLine(reply);
        const std::string line = encodeJson(fitted);
        EXPECT_GT(line.size(), kMaxControlLineBytes - 8) << "cut more than it had to";
        const std::size_t cut = fitted.message.find(omission);
        ASSERT_NE(cut, std::string::npos);
        const std::string head = fitted.message.substr(0, cut);
        const std::string tail = fitted.message.substr(cut + omission.size());
        EXPECT_TRUE(repairUtf8(message).starts_with(head) && repairUtf8(message).ends_with(tail));
        EXPECT_NEAR(static_cast<double>(head.size()), static_cast<double>(tail.size()), 8);
    }
}

}  // namespace
}  // namespace ferovane
