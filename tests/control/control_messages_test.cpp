#include <gtest/gtest.h>

#include <limits>

#include "core/control/control_channel.h"
#include "core/control/control_reply.h"
#include "core/control/control_request.h"
#include "core/model/json_codec.h"
#include "core/model/scope_error.h"
#include "core/model/utf8.h"

namespace ferovane {
namespace {

// "" when the request is valid.
std::string refusal(const ControlRequest& request) {
    try {
        request.validate();
        return "";
    } catch (const ScopeError& error) {
        return error.message();
    }
}

std::string decodingRefusal(const std::string& line) {
    try {
        decodeJson<ControlRequest>(line);
        return "";
    } catch (const ScopeError& error) {
        return error.message();
    }
}

std::string repeated(std::string_view text, int times) {
    std::string all;
    for (int i = 0; i < times; ++i) {
        all += text;
    }
    return all;
}

PowerOptimizationPlan validPlan() {
    return {.source = PowerSource::battery, .displayMinutes = 5, .disableTurbo = false};
}

PowerBackup validBackup() {
    PowerBackup backup;
    backup.edits = {{PowerSource::battery, PowerSetting::displaySleep, 10, 5}};
    return backup;
}

TEST(ControlRequestTest, KnowsTenCommands) {
    for (const char* word :
         {"hello", "status", "auto", "turbo-disable", "turbo-enable", "test-fans", "shutdown"}) {
        EXPECT_EQ(refusal({.command = word}), "") << word;
    }
    for (const char* word : {"", "Hello", "status ", "cooling", "automatic", "power", "test-fan"}) {
        EXPECT_EQ(refusal({.command = word}), "未知控制命令") << word;
    }
    EXPECT_EQ(RawEnum<ControlCommand>::cases.size(), 10U);
}

TEST(ControlRequestTest, PowerRecordsGoWithTheirCommands) {
    EXPECT_EQ(refusal({.command = "power-optimize"}), "缺少优化方案");
    EXPECT_EQ(refusal({.command = "power-restore"}), "缺少恢复记录");
    EXPECT_EQ(refusal({.command = "power-optimize", .powerPlan = validPlan()}), "");
    EXPECT_EQ(refusal({.command = "power-restore", .powerBackup = validBackup()}), "");
    EXPECT_EQ(refusal({.command = "status", .powerPlan = validPlan()}), "电源方案命令不匹配");
    EXPECT_EQ(refusal({.command = "status", .powerBackup = validBackup()}), "恢复记录命令不匹配");

    PowerOptimizationPlan badPlan = validPlan();
    badPlan.displayMinutes = 3;
    PowerBackup badBackup = validBackup();
    badBackup.edits[0].after = 300;
    EXPECT_EQ(refusal({.command = "power-optimize", .powerPlan = badPlan}), "无效的显示器休眠时间");
    EXPECT_EQ(refusal({.command = "power-restore", .powerBackup = badBackup}), "恢复记录无效");
}

TEST(ControlRequestTest, TheFirstBrokenRuleSpeaks) {
    PowerOptimizationPlan badPlan = validPlan();
    badPlan.idleMinutes = 2;
    const FanCurve emptyCurve{};
    const struct {
        ControlRequest request;
        const char* message;
    } cases[] = {
        {{.command = "x", .duration = 0.0, .powerPlan = validPlan()}, "未知控制命令"},
        {{.command = "power-optimize", .powerPlan = badPlan, .powerBackup = validBackup()},
         "无效的系统休眠时间"},
        {{.command = "power-optimize", .powerPlan = validPlan(), .powerBackup = validBackup()},
         "恢复记录命令不匹配"},
        {{.command = "power-restore", .powerPlan = validPlan(), .powerBackup = validBackup()},
         "电源方案命令不匹配"},
        {{.command = "profile", .profile = "x", .powerPlan = validPlan()}, "电源方案命令不匹配"},
        {{.command = "profile", .profile = "x", .duration = 0.0}, "无效模式"},
        {{.command = "profile", .profile = "custom", .curve = emptyCurve, .duration = 0.0},
         "曲线需要 2 至 8 个控制点"},
        {{.command = "status", .duration = 0.0, .label = std::string(81, 'a')}, "无效控制时长"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(refusal(c.request), c.message);
    }
}

TEST(ControlRequestTest, ProfilesAreTheirCommandWords) {
    for (const char* word : {"automatic", "eco", "performance", "balanced", "quiet"}) {
        EXPECT_EQ(refusal({.command = "profile", .profile = word}), "") << word;
    }
    EXPECT_EQ(refusal({.command = "profile", .profile = "custom", .curve = FanCurve::quiet()}), "");
    EXPECT_EQ(refusal({.command = "profile", .profile = "custom"}), "缺少曲线");
    EXPECT_EQ(refusal({.command = "profile"}), "无效模式");
    for (const char* word : {"", "Custom", "静音", "turbo", "quiet "}) {
        EXPECT_EQ(refusal({.command = "profile", .profile = word}), "无效模式") << word;
    }
    // Not looked at where they are not used.
    EXPECT_EQ(refusal({.command = "status", .profile = "x", .curve = FanCurve{}}), "");
    EXPECT_EQ(refusal({.command = "profile", .profile = "quiet", .curve = FanCurve{}}), "");
}

TEST(ControlRequestTest, DurationAndLabelHaveLimitsOnEveryCommand) {
    constexpr double infinity = std::numeric_limits<double>::infinity();
    for (const double good : {1800.0, 0.001, 300.0}) {
        EXPECT_EQ(refusal({.command = "status", .duration = good}), "") << good;
    }
    for (const double bad : {1800.0001, 0.0, -0.0, -5.0, infinity, -infinity,
                             std::numeric_limits<double>::quiet_NaN()}) {
        EXPECT_EQ(refusal({.command = "status", .duration = bad}), "无效控制时长") << bad;
    }
    EXPECT_EQ(refusal({.command = "auto", .label = std::string(80, 'a')}), "");
    EXPECT_EQ(refusal({.command = "auto", .label = std::string(81, 'a')}), "模式名称过长");
    EXPECT_EQ(refusal({.command = "auto", .label = repeated("风", 26)}), "");
    EXPECT_EQ(refusal({.command = "auto", .label = repeated("风", 27)}), "模式名称过长");
}

TEST(ControlRequestTest, ReadsTheLinesOfAMonitor) {
    EXPECT_EQ(decodeJson<ControlRequest>(R"({"command":"hello"})"),
              ControlRequest{.command = "hello"});
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

    const auto optimize = decodeJson<ControlRequest>(
        R"({"command":"power-optimize","powerPlan":{"source":"battery","scope":"current",)"
        R"("lowPower":true,"displayMinutes":5,"disableTurbo":false,"expected":{"profiles":)"
        R"(["battery",["sleep",10,"displaysleep",5]]}}})");
    ASSERT_TRUE(optimize.powerPlan && optimize.powerPlan->expected);
    EXPECT_EQ(optimize.powerPlan->expected->value(PowerSetting::displaySleep, PowerSource::battery),
              5);

    const auto restore = decodeJson<ControlRequest>(
        R"({"command":"power-restore","powerBackup":{"id":"0123ABCD-EF45-6789-ABCD-EF0123456789",)"
        R"("date":736259400.25,"edits":[{"source":"ac","key":"sleep","before":1,"after":5}],)"
        R"("turboBefore":0}})");
    ASSERT_TRUE(restore.powerBackup);
    EXPECT_EQ(restore.powerBackup->id.text(), "0123ABCD-EF45-6789-ABCD-EF0123456789");
    EXPECT_EQ(restore.powerBackup->date, Date{736259400.25});
    EXPECT_EQ(decodeJson<ControlRequest>(encodeJson(restore)), restore);
}

TEST(ControlRequestTest, RefusesMalformedLinesByMember) {
    const struct {
        const char* line;
        const char* message;
    } cases[] = {
        {"", "JSON 内容格式错误（第 1 字节）"},
        {"{}", "JSON 成员 command 缺失"},
        {R"({"command":5})", "JSON 成员 command 应为文本"},
        {R"({"command":"status","duration":"5"})", "JSON 成员 duration 应为数字"},
        {R"({"command":"status","duration":1e999})", "JSON 成员 duration 超出数值范围"},
        {R"({"command":"status","duration":NaN})", "JSON 成员 duration 附近格式错误（第 32 字节）"},
        {R"({"command":"status","curve":{"points":[{"temperature":30}],"sensor":"CPU"}})",
         "JSON 成员 curve.points[0].percent 缺失"},
        {R"({"command":"status","curve":{"points":[],"sensor":"cpu"}})",
         "JSON 成员 curve.sensor 的取值无法识别"},
        {R"({"command":"power-optimize","powerPlan":{"source":"usb"}})",
         "JSON 成员 powerPlan.source 的取值无法识别"},
        {R"({"command":"power-optimize","powerPlan":{"expected":{"profiles":["ac",["sleep"]]}}})",
         "JSON 成员 powerPlan.expected.profiles.ac 的最后一个键没有值"},
        {R"({"command":"power-optimize","powerPlan":{"expected":{"profiles":["ac",["Sleep",1]]}}})",
         "JSON 成员 powerPlan.expected.profiles.ac[0] 的取值无法识别"},
        {R"({"command":"power-restore","powerBackup":{"id":"0123ABCDEF456789ABCDEF0123456789"}})",
         "JSON 成员 powerBackup.id 不是有效的 UUID"},
        {R"({"command":"power-restore","powerBackup":{"edits":[{"before":1.5}]}})",
         "JSON 成员 powerBackup.edits[0].before 应为整数"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(decodingRefusal(c.line), c.message) << c.line;
    }
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
    const std::string_view omission = "…（内容过长，其余已省略）";
    const std::string bracket = R"({"ok":false,"message":""})";
    // Exactly the longest that fits is left alone.
    const ControlReply longest{false, std::string(kMaxControlLineBytes - bracket.size(), 'x')};
    EXPECT_EQ(fittedToLine(longest), longest);

    const std::string megabyte = repeated("x", 1 << 20);
    for (const std::string& message :
         {longest.message + "x", megabyte, repeated("风扇", 9000), repeated("\U0001F600", 9000),
          repeated("\"", 20000), repeated("\n\x01", 20000), repeated("\x80", 20000),
          repeated("a\xE9\xA3", 20000), repeated("风\n", 8000)}) {
        ControlReply reply{false, message, "S-1", "quiet", "静音", 0};
        const ControlReply fitted = fittedToLine(reply);
        const std::string line = encodeJson(fitted);
        EXPECT_LE(line.size(), kMaxControlLineBytes);
        EXPECT_GT(line.size(), kMaxControlLineBytes - 8) << "cut more than it had to";
        EXPECT_TRUE(fitted.message.ends_with(omission));
        EXPECT_EQ(firstInvalidUtf8(fitted.message), std::nullopt);
        const std::string kept(fitted.message.substr(0, fitted.message.size() - omission.size()));
        EXPECT_TRUE(repairUtf8(message).starts_with(kept));
        reply.message = fitted.message;
        EXPECT_EQ(fitted, reply);
    }
}

}  // namespace
}  // namespace ferovane
