// What the decoder refuses, and in which words.
#include <gtest/gtest.h>

#include <sstream>

#include "core/model/fan_target.h"
#include "core/model/json_codec.h"
#include "core/model/scope_error.h"
#include "core/model/snapshot.h"
#include "core/model/utf8.h"

namespace ferovane {
namespace {

using namespace std::string_literals;

enum class Switch { low, sleep };

struct Inner {
    std::int32_t small = 0;
    std::optional<Uuid> id;
    std::optional<HardwareSensorKind> kind;
    std::optional<Date> when;
    std::optional<std::map<std::string, double>> keys;
    std::optional<std::vector<FanTarget>> targets;
    std::optional<std::map<Switch, std::map<Switch, std::int64_t>>> pairs;

    static constexpr auto jsonFields() {
        using R = Inner;
        return std::tuple{jsonField("small", &R::small), jsonField("id", &R::id),
                          jsonField("kind", &R::kind),   jsonField("when", &R::when),
                          jsonField("keys", &R::keys),   jsonField("targets", &R::targets),
                          jsonField("pairs", &R::pairs)};
    }
};

struct Outer {
    Inner plan;
    std::optional<std::string> label;

    static constexpr auto jsonFields() {
        using R = Outer;
        return std::tuple{jsonField("plan", &R::plan), jsonField("label", &R::label)};
    }
};

}  // namespace

template <>
struct RawEnum<Switch> {
    static constexpr std::array<RawCase<Switch>, 2> cases{
        {{Switch::low, "low"}, {Switch::sleep, "sleep"}}};
};

namespace {

std::string refusal(const std::string& text, JsonDates dates = JsonDates::secondsSinceReference) {
    try {
        decodeJson<Outer>(text, dates);
        return "accepted";
    } catch (const ScopeError& error) {
        return error.message();
    }
}

// Members of "plan", and what is said of it; "" where it is accepted.
TEST(JsonStrictnessTest, NamesTheMemberThatDoesNotFit) {
    const char* const members[][2] = {
        {R"("small":1)", ""},
        {R"()", "plan.small 缺失"},
        {R"("small":"1")", "plan.small 应为整数"},
        {R"("small":true)", "plan.small 应为整数"},
        {R"("small":null)", "plan.small 应为整数"},
        {R"("small":{})", "plan.small 应为整数"},
        {R"("small":1.5)", "plan.small 应为整数"},
        {R"("small":2147483648)", "plan.small 超出数值范围"},
        {R"("small":-2147483649)", "plan.small 超出数值范围"},
        {R"("small":18446744073709551616)", "plan.small 超出数值范围"},
        {R"("small":9223372036854775808)", "plan.small 超出数值范围"},
        {R"("small":1e400)", "plan.small 超出数值范围"},
        {R"("small":1,"x":{"y":[0,-1e999]})", "plan.x.y[1] 超出数值范围"},
        {R"("small":1,"id":"0123abcdef456789abcdef0123456789")", "plan.id 不是有效的 UUID"},
        {R"("small":1,"id":5)", "plan.id 应为文本"},
        {R"("small":1,"kind":"Fan")", "plan.kind 的取值无法识别"},
        {R"("small":1,"kind":0)", "plan.kind 应为文本"},
        {R"("small":1,"when":"2024-05-01T12:30:00Z")", "plan.when 应为日期"},
        {R"("small":1,"keys":{"F0Ac":"x"})", "plan.keys.F0Ac 应为数字"},
        {R"("small":1,"keys":[])", "plan.keys 应为对象"},
        {R"("small":1,"targets":{})", "plan.targets 应为数组"},
        {R"("small":1,"targets":[{"id":0,"rpm":1},{"id":1}])", "plan.targets[1].rpm 缺失"},
        {R"("small":1,"targets":[{"id":0,"rpm":1},null])", "plan.targets[1] 应为对象"},
        // Whatever stands in an object stands there once, known or not, escaped or not.
        {R"("small":1,"small":1)", "plan.small 重复出现"},
        {R"("small":1,"\u0073mall":1)", "plan.small 重复出现"},
        {R"("id":null,"small":1,"id":null)", "plan.id 重复出现"},
        {R"("x":1,"small":1,"y":2,"x":3)", "plan.x 重复出现"},
        {R"("small":1,"q":{"a":1,"b":[{"c":1,"d":2,"c":3}]})", "plan.q.b[0].c 重复出现"},
        {R"("small":1,"keys":{"F0Ac":1,"F0Mn":2,"F0Ac":1})", "plan.keys.F0Ac 重复出现"},
        {R"("x":{"a":1},"y":{"a":1},"a":[{"a":1},{"a":{"a":2}}],"small":1)", ""},
        // Arrays that alternate keys and values.
        {R"("small":1,"pairs":["low",["sleep",1,"low",2],"sleep",[]])", ""},
        {R"("small":1,"pairs":["low"])", "plan.pairs 的最后一个键没有值"},
        {R"("small":1,"pairs":["low",["sleep",1,"low"]])", "plan.pairs.low 的最后一个键没有值"},
        {R"("small":1,"pairs":["low",[],"low",[]])", "plan.pairs[2] 重复出现"},
        {R"("small":1,"pairs":["high",[]])", "plan.pairs[0] 的取值无法识别"},
        {R"("small":1,"pairs":[1,[]])", "plan.pairs[0] 应为文本"},
        {R"("small":1,"pairs":[[],[]])", "plan.pairs[0] 应为文本"},
        {R"("small":1,"pairs":[null,[]])", "plan.pairs[0] 应为文本"},
        {R"("small":1,"pairs":["low",["sleep","1"]])", "plan.pairs.low.sleep 应为整数"},
        {R"("small":1,"pairs":["low",5])", "plan.pairs.low 应为数组"},
        {R"("small":1,"pairs":{"low":{"sleep":1}})", "plan.pairs 应为数组"},
    };
    for (const auto& [member, message] : members) {
        EXPECT_EQ(refusal(R"({"plan":{)"s + member + "}}"),
                  *message == 0 ? "accepted" : "JSON 成员 "s + message);
    }
    EXPECT_EQ(refusal("{}"), "JSON 成员 plan 缺失");
    EXPECT_EQ(refusal(R"({"plan":null})"), "JSON 成员 plan 应为对象");
    EXPECT_EQ(refusal(R"({"plan":[]})"), "JSON 成员 plan 应为对象");
    EXPECT_EQ(refusal(R"({"plan":7})"), "JSON 成员 plan 应为对象");
    EXPECT_EQ(refusal("[]"), "JSON 内容应为对象");
    EXPECT_EQ(refusal(R"("plan")"), "JSON 内容应为对象");
    const auto dated = [](const char* date) {
        return refusal(R"({"plan":{"small":1,"when":)"s + date + "}}", JsonDates::iso8601);
    };
    EXPECT_EQ(dated(R"("2024-05-01T12:30:00Z")"), "accepted");
    EXPECT_EQ(dated("5"), "JSON 成员 plan.when 应为日期");
    EXPECT_EQ(dated(R"("2024-05-01")"), "JSON 成员 plan.when 不是有效的日期");
}

TEST(JsonStrictnessTest, RefusesWhatIsNotOneJsonText) {
    const std::string good = R"({"plan":{"small":1}})";
    std::istringstream lines(R"({
nul
{"plan":{"small":1}
{"plan":{"small":1}}x
{"plan":{"small":1}}{"plan":{"small":1}}
{"plan":{"small":1}},
{"plan":{"small":+1}}
{"plan":{"small":.5}}
{"plan":{"small":1.}}
{"plan":{"small":0x1}}
{"plan":{"small":NaN}}
{"plan":{"small":1,}}
{"plan":{"small":1},}
{'plan':{"small":1}}
{plan:{"small":1}}
{"plan" {"small":1}}
{/**/"plan":{"small":1}}
{"plan":{"small":1},"label":"a	b"}
{"plan":{"small":1},"label":"\x"}
{"plan":{"small":1},"label":"\u12"}
{"plan":{"small":1},"label":"\ud800"}
{"plan":{"small":1},"label":"\udc00x"}
{"plan":{"small":1},"label":"a
{"plan":{"small":1]})");
    for (std::string line; std::getline(lines, line);) {
        EXPECT_NE(refusal(line).find("格式错误（第 "), std::string::npos) << line;
    }
    EXPECT_EQ(refusal(""), "JSON 内容格式错误（第 1 字节）");
    EXPECT_EQ(refusal(good + "x"), "JSON 内容格式错误（第 21 字节）");
    EXPECT_EQ(refusal(good + "\0"s), "JSON 内容格式错误（第 21 字节）");
    EXPECT_EQ(refusal("\0"s + good), "JSON 内容格式错误（第 1 字节）");
    EXPECT_EQ(refusal("\xEF\xBB\xBF" + good), "JSON 内容格式错误（第 1 字节）");
    EXPECT_EQ(refusal(R"({"plan":{"small":01}})"),
              "JSON 成员 plan.small 附近格式错误（第 19 字节）");
    for (const char* bytes : {"\x80", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xE9\xA3"}) {
        EXPECT_EQ(refusal(R"({"plan":{"small":1},"label":")"s + bytes + "\"}"),
                  "JSON 成员 label 附近不是有效的 UTF-8 文本（第 30 字节）");
        EXPECT_EQ(refusal(R"({"plan":{"small":1},"x":{")"s + bytes + "\":1}}"),
                  "JSON 成员 x 附近不是有效的 UTF-8 文本（第 27 字节）");
    }
}

TEST(JsonStrictnessTest, NestingIsBounded) {
    const auto nested = [](std::size_t levels) {
        return R"({"plan":{"small":1},"x":)" + std::string(levels, '[') + "0" +
               std::string(levels, ']') + "}";
    };
    EXPECT_EQ(refusal(nested(15)), "accepted");
    EXPECT_EQ(refusal(nested(16)),
              "JSON 成员 x[0][0][0][0][0][0][0][0][0][0][0][0][0][0][0] 嵌套超过 16 层");
    std::string objects;
    for (int i = 0; i < 3000; ++i) {
        objects += R"({"x":)";
    }
    EXPECT_EQ(refusal(objects), "JSON 成员 x.x.x.x.x.x.x.x.x.x.x.x.x.x.x.x 嵌套超过 16 层");
}

// A reply carries the message, so it must stay far below a line, and must not carry control bytes
// to somebody's terminal, whatever a hostile line holds.
TEST(JsonStrictnessTest, MessagesStayShortAndPrintable) {
    const std::string longName(16000, 'n');
    std::string wide;
    for (int i = 0; i < 5000; ++i) {
        wide += "风";
    }
    const std::string escapes = R"(\u001b[2J\u0000\n)";
    for (const std::string& name : {longName, wide, escapes + longName, escapes}) {
        for (const std::string& text :
             {R"({"plan":{"small":1},")" + name + R"(":1e999})",
              R"({"plan":{"small":1},")" + name + R"(":1,")" + name + R"(":1})",
              R"({"plan":{"small":1},"x":{")" + name + R"(":{")" + name + R"(":x}}})",
              R"({"plan":{"small":1},"label":")" + name + "\xFF\"}",
              R"({"plan":{"small":1,"kind":")" + name + R"("}})"}) {
            const std::string message = refusal(text);
            EXPECT_NE(message, "accepted");
            EXPECT_LT(message.size(), 250U);
            EXPECT_EQ(firstInvalidUtf8(message), std::nullopt);
            for (const char c : message) {
                EXPECT_FALSE(static_cast<unsigned char>(c) < 0x20 || c == 0x7F);
            }
        }
    }
}

// As long as a line may be, made of nothing but names: this must not take quadratic time.
TEST(JsonStrictnessTest, ManyUnknownNamesAreComparedQuickly) {
    std::string text = R"({"plan":{"small":1})";
    for (int i = 0; text.size() < 200000; ++i) {
        text += ",\"" + std::to_string(i) + "\":0";
    }
    EXPECT_EQ(refusal(text + "}"), "accepted");
    EXPECT_EQ(refusal(text + ",\"7\":0}"), "JSON 成员 7 重复出现");
}

}  // namespace
}  // namespace ferovane
