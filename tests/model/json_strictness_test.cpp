// What the decoder refuses, and in which words.
#include <gtest/gtest.h>

#include "core/model/fan_target.h"
#include "core/model/json_codec.h"
#include "core/model/scope_error.h"
#include "core/model/snapshot.h"
#include "core/model/utf8.h"

namespace ferovane {
namespace {

enum class Switch { low, sleep };

struct Inner {
    std::int32_t small = 0;
    std::optional<Uuid> id;
    std::optional<HardwareSensorKind> kind;
    std::optional<Date> when;
    std::optional<std::map<std::string, double>> keys;
    std::optional<std::vector<FanTarget>> targets;

    static constexpr auto jsonFields() {
        using R = Inner;
        return std::tuple{jsonField("small", &R::small), jsonField("id", &R::id),
                          jsonField("kind", &R::kind),   jsonField("when", &R::when),
                          jsonField("keys", &R::keys),   jsonField("targets", &R::targets)};
    }
};

struct Outer {
    Inner plan;
    std::optional<std::string> label;
    std::optional<std::map<Switch, std::map<Switch, std::int64_t>>> pairs;

    static constexpr auto jsonFields() {
        using R = Outer;
        return std::tuple{jsonField("plan", &R::plan), jsonField("label", &R::label),
                          jsonField("pairs", &R::pairs)};
    }
};

}  // namespace

template <>
struct RawEnum<Switch> {
    static constexpr std::array<RawCase<Switch>, 2> cases{
        {{Switch::low, "low"}, {Switch::sleep, "sleep"}}};
};

namespace {

using namespace std::string_literals;

std::string refusal(const std::string& text, JsonDates dates = JsonDates::secondsSinceReference) {
    try {
        decodeJson<Outer>(text, dates);
        return "accepted";
    } catch (const ScopeError& error) {
        return error.message();
    }
}

TEST(JsonStrictnessTest, NamesTheMemberThatDoesNotFit) {
    const struct {
        const char* text;
        const char* message;
    } cases[] = {
        {R"({"plan":{"small":1}})", "accepted"},
        {R"({})", "JSON 成员 plan 缺失"},
        {R"({"plan":{}})", "JSON 成员 plan.small 缺失"},
        {R"({"plan":null})", "JSON 成员 plan 应为对象"},
        {R"({"plan":[]})", "JSON 成员 plan 应为对象"},
        {R"({"plan":7})", "JSON 成员 plan 应为对象"},
        {R"([])", "JSON 内容应为对象"},
        {R"("plan")", "JSON 内容应为对象"},
        {R"({"plan":{"small":"1"}})", "JSON 成员 plan.small 应为整数"},
        {R"({"plan":{"small":true}})", "JSON 成员 plan.small 应为整数"},
        {R"({"plan":{"small":null}})", "JSON 成员 plan.small 应为整数"},
        {R"({"plan":{"small":{}}})", "JSON 成员 plan.small 应为整数"},
        {R"({"plan":{"small":1.5}})", "JSON 成员 plan.small 应为整数"},
        {R"({"plan":{"small":2147483648}})", "JSON 成员 plan.small 超出数值范围"},
        {R"({"plan":{"small":-2147483649}})", "JSON 成员 plan.small 超出数值范围"},
        {R"({"plan":{"small":18446744073709551616}})", "JSON 成员 plan.small 超出数值范围"},
        {R"({"plan":{"small":9223372036854775808}})", "JSON 成员 plan.small 超出数值范围"},
        {R"({"plan":{"small":1e400}})", "JSON 成员 plan.small 超出数值范围"},
        {R"({"plan":{"small":1},"x":{"y":[0,-1e999]}})", "JSON 成员 x.y[1] 超出数值范围"},
        {R"({"plan":{"small":1},"label":5})", "JSON 成员 label 应为文本"},
        {R"({"plan":{"small":1},"label":["a"]})", "JSON 成员 label 应为文本"},
        {R"({"plan":{"small":1,"id":"0123abcdef456789abcdef0123456789"}})",
         "JSON 成员 plan.id 不是有效的 UUID"},
        {R"({"plan":{"small":1,"id":5}})", "JSON 成员 plan.id 应为文本"},
        {R"({"plan":{"small":1,"kind":"Fan"}})", "JSON 成员 plan.kind 的取值无法识别"},
        {R"({"plan":{"small":1,"kind":0}})", "JSON 成员 plan.kind 应为文本"},
        {R"({"plan":{"small":1,"when":"2024-05-01T12:30:00Z"}})", "JSON 成员 plan.when 应为日期"},
        {R"({"plan":{"small":1,"keys":{"F0Ac":"x"}}})", "JSON 成员 plan.keys.F0Ac 应为数字"},
        {R"({"plan":{"small":1,"keys":[]}})", "JSON 成员 plan.keys 应为对象"},
        {R"({"plan":{"small":1,"targets":{}}})", "JSON 成员 plan.targets 应为数组"},
        {R"({"plan":{"small":1,"targets":[{"id":0,"rpm":1},{"id":1}]}})",
         "JSON 成员 plan.targets[1].rpm 缺失"},
        {R"({"plan":{"small":1,"targets":[{"id":0,"rpm":1},null]}})",
         "JSON 成员 plan.targets[1] 应为对象"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(refusal(c.text), c.message) << c.text;
    }
}

TEST(JsonStrictnessTest, RefusesANameTwiceInOneObject) {
    const struct {
        const char* text;
        const char* message;
    } cases[] = {
        {R"({"plan":{"small":1,"small":1}})", "JSON 成员 plan.small 重复出现"},
        {R"({"plan":{"small":1},"plan":{"small":1}})", "JSON 成员 plan 重复出现"},
        {R"({"label":null,"plan":{"small":1},"label":null})", "JSON 成员 label 重复出现"},
        {R"({"plan":{"small":1},"\u0070lan":1})", "JSON 成员 plan 重复出现"},
        {R"({"x":1,"plan":{"small":1},"y":2,"x":3})", "JSON 成员 x 重复出现"},
        {R"({"plan":{"small":1,"q":{"a":1,"b":[{"c":1,"d":2,"c":3}]}}})",
         "JSON 成员 plan.q.b[0].c 重复出现"},
        {R"({"plan":{"small":1,"keys":{"F0Ac":1,"F0Mn":2,"F0Ac":1}}})",
         "JSON 成员 plan.keys.F0Ac 重复出现"},
        {R"({"x":{"a":1},"y":{"a":1},"a":[{"a":1},{"a":{"a":2}}],"plan":{"a":0,"small":1}})",
         "accepted"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(refusal(c.text), c.message) << c.text;
    }
}

TEST(JsonStrictnessTest, AlternatingArraysHoldPairs) {
    const auto pairs = [](const char* array) {
        return refusal(R"({"plan":{"small":1},"pairs":)"s + array + "}");
    };
    EXPECT_EQ(pairs(R"(["low",["sleep",1,"low",2],"sleep",[]])"), "accepted");
    EXPECT_EQ(pairs(R"(["low"])"), "JSON 成员 pairs 的最后一个键没有值");
    EXPECT_EQ(pairs(R"(["low",["sleep",1,"low"]])"), "JSON 成员 pairs.low 的最后一个键没有值");
    EXPECT_EQ(pairs(R"(["low",[],"low",[]])"), "JSON 成员 pairs[2] 重复出现");
    EXPECT_EQ(pairs(R"(["high",[]])"), "JSON 成员 pairs[0] 的取值无法识别");
    EXPECT_EQ(pairs(R"([1,[]])"), "JSON 成员 pairs[0] 应为文本");
    EXPECT_EQ(pairs(R"([[],[]])"), "JSON 成员 pairs[0] 应为文本");
    EXPECT_EQ(pairs(R"([null,[]])"), "JSON 成员 pairs[0] 应为文本");
    EXPECT_EQ(pairs(R"(["low",["sleep","1"]])"), "JSON 成员 pairs.low.sleep 应为整数");
    EXPECT_EQ(pairs(R"(["low",5])"), "JSON 成员 pairs.low 应为数组");
    EXPECT_EQ(pairs(R"({"low":{"sleep":1}})"), "JSON 成员 pairs 应为数组");
}

TEST(JsonStrictnessTest, RefusesWhatIsNotOneJsonText) {
    const std::string good = R"({"plan":{"small":1}})";
    for (const std::string& text : {""s,
                                    " "s,
                                    "{"s,
                                    "nul"s,
                                    "{\"plan\":{\"small\":1}"s,
                                    good + "x",
                                    good + good,
                                    good + ",",
                                    "\xEF\xBB\xBF" + good,
                                    good + "\0"s,
                                    "\0"s + good,
                                    "{\"plan\":\0{\"small\":1}}"s,
                                    R"({"plan":{"small":01}})"s,
                                    R"({"plan":{"small":+1}})"s,
                                    R"({"plan":{"small":.5}})"s,
                                    R"({"plan":{"small":1.}})"s,
                                    R"({"plan":{"small":0x1}})"s,
                                    R"({"plan":{"small":NaN}})"s,
                                    R"({"plan":{"small":Infinity}})"s,
                                    R"({"plan":{"small":1,}})"s,
                                    R"({"plan":{"small":1},})"s,
                                    R"({'plan':{"small":1}})"s,
                                    R"({plan:{"small":1}})"s,
                                    R"({"plan" {"small":1}})"s,
                                    "{/**/\"plan\":{\"small\":1}}"s,
                                    "{\"plan\":{\"small\":1},\"label\":\"a\nb\"}"s,
                                    R"({"plan":{"small":1},"label":"\x"})"s,
                                    R"({"plan":{"small":1},"label":"\u12"})"s,
                                    R"({"plan":{"small":1},"label":"\ud800"})"s,
                                    R"({"plan":{"small":1},"label":"\udc00x"})"s,
                                    R"({"plan":{"small":1},"label":"a)"s,

                                    R"({"plan":{"small":1]})"s}) {
        const std::string message = refusal(text);
        EXPECT_NE(message.find("格式错误（第 "), std::string::npos) << text << " -> " << message;
    }
    EXPECT_EQ(refusal(good + "x"), "JSON 内容格式错误（第 21 字节）");
    EXPECT_EQ(refusal(R"({"plan":{"small":01}})"),
              "JSON 成员 plan.small 附近格式错误（第 19 字节）");
    EXPECT_EQ(refusal(good + "\0"s), "JSON 内容格式错误（第 21 字节）");
    EXPECT_EQ(refusal("\xEF\xBB\xBF" + good), "JSON 内容格式错误（第 1 字节）");
}

TEST(JsonStrictnessTest, RefusesInvalidUtf8InValuesAndNames) {
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
    EXPECT_NE(refusal(std::string(16383, '[')), "accepted");
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
    const std::string wide = []() {
        std::string text;
        for (int i = 0; i < 5000; ++i) {
            text += "风";
        }
        return text;
    }();
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

TEST(JsonStrictnessTest, DatesHaveOneFormAtATime) {
    const std::string written = R"({"plan":{"small":1,"when":"2024-05-01T12:30:00Z"}})";
    EXPECT_EQ(refusal(written, JsonDates::iso8601), "accepted");
    EXPECT_EQ(refusal(R"({"plan":{"small":1,"when":5}})", JsonDates::iso8601),
              "JSON 成员 plan.when 应为日期");
    EXPECT_EQ(refusal(R"({"plan":{"small":1,"when":"2024-05-01"}})", JsonDates::iso8601),
              "JSON 成员 plan.when 不是有效的日期");
}

}  // namespace
}  // namespace ferovane
