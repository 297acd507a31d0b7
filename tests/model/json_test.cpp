// The bytes that records become, that those bytes become the records, and what else is refused, in
// which words.
#include <gtest/gtest.h>

#include <cmath>
#include <nlohmann/json.hpp>
#include <sstream>

#include "core/model/fan_target.h"
#include "core/model/json_codec.h"
#include "core/model/scope_error.h"
#include "core/model/snapshot.h"
#include "core/model/utf8.h"
#include "tests/support/dice.h"

namespace ferovane {
namespace {

using namespace std::string_literals;

enum class Source { mains, battery };

// One of each kind of member that a record can have.
struct Plan {
    std::int32_t small = 0;
    std::optional<bool> flag;
    std::optional<std::int64_t> wide;
    std::optional<double> number;
    std::optional<Date> when;
    std::optional<Uuid> id;
    std::optional<Source> source;
    std::optional<MemoryPressure> pressure;
    std::optional<std::map<std::string, double>> keys;
    std::optional<std::vector<FanTarget>> targets;
    std::optional<std::map<Source, std::map<Source, std::int64_t>>> pairs;

    bool operator==(const Plan&) const = default;

    static constexpr auto jsonFields() {
        using R = Plan;
        return std::tuple{jsonField("small", &R::small),   jsonField("flag", &R::flag),
                          jsonField("wide", &R::wide),     jsonField("number", &R::number),
                          jsonField("when", &R::when),     jsonField("id", &R::id),
                          jsonField("source", &R::source), jsonField("pressure", &R::pressure),
                          jsonField("keys", &R::keys),     jsonField("targets", &R::targets),
                          jsonField("pairs", &R::pairs)};
    }
};

struct Record {
    Plan plan;
    std::optional<std::string> label;

    bool operator==(const Record&) const = default;

    static constexpr auto jsonFields() {
        return std::tuple{jsonField("plan", &Record::plan), jsonField("label", &Record::label)};
    }
};

}  // namespace

template <>
struct RawEnum<Source> {
    static constexpr std::array<RawCase<Source>, 2> cases{
        {{Source::mains, "ac"}, {Source::battery, "battery"}}};
};

namespace {

Record everyKindOfMember() {
    Record record;
    record.plan = {
        std::numeric_limits<std::int32_t>::min(),
        true,
        std::numeric_limits<std::int64_t>::max(),
        0.1,
        Date{736259399},
        Uuid::parse("0123abcd-ef45-6789-abcd-ef0123456789"),
        Source::battery,
        MemoryPressure::critical,
        {{{"F0Ac", 1834.5}, {"#KEY", 300}}},
        {{{1, 2000}, {0, -1}}},
        {{{Source::battery, {{Source::battery, 10}, {Source::mains, 5}}}, {Source::mains, {}}}}};
    record.label = "引号\" 反斜\\ 换行\n 铃\a 零\u0001 /";
    return record;
}

TEST(JsonCodecTest, EveryKindOfMemberBothWays) {
    const Record record = everyKindOfMember();
    const std::string text =
        R"({"plan":{"small":-2147483648,"flag":true,"wide":9223372036854775807,"number":0.1,)"
        R"("when":736259399,"id":"0123ABCD-EF45-6789-ABCD-EF0123456789","source":"battery",)"
        R"("pressure":4,"keys":{"#KEY":300,"F0Ac":1834.5},"targets":[{"id":1,"rpm":2000},)"
        R"({"id":0,"rpm":-1}],"pairs":["ac",[],"battery",["ac",5,"battery",10]]},)"
        R"("label":"引号\" 反斜\\ 换行\n 铃\u0007 零\u0001 /"})";
    EXPECT_EQ(encodeJson(record), text);
    EXPECT_EQ(decodeJson<Record>(text), record);
}

// Another writer puts what was written into its order and layout: nothing may change.
TEST(JsonCodecTest, WhatIsWrittenReadsBackInEveryStyle) {
    const Record record = everyKindOfMember();
    for (int i = 0; i < 8; ++i) {
        const JsonStyle style{
            .dates = i < 4 ? JsonDates::iso8601 : JsonDates::secondsSinceReference,
            .pretty = i % 2 == 1,
            .sortedKeys = i / 2 % 2 == 1};
        const std::string text = encodeJson(record, style);
        const int indent = style.pretty ? 2 : -1;
        EXPECT_EQ(text, style.sortedKeys ? nlohmann::json::parse(text).dump(indent)
                                         : nlohmann::ordered_json::parse(text).dump(indent));
        EXPECT_EQ(decodeJson<Record>(text, style.dates), record);
        EXPECT_EQ(text.find("2024-05-01T12:29:59Z") != text.npos, i < 4) << text;
    }
    EXPECT_EQ(encodeJson(Record{}), R"({"plan":{"small":0}})");
    EXPECT_EQ(encodeJson(std::map<std::string, double>{}, {.pretty = true}), "{}");
}

TEST(JsonCodecTest, AcceptsWhatStandardEncodersWrite) {
    // Any order, white space, escapes, whole numbers with a point or exponent, null for absent,
    // members that nobody knows.
    Record expected;
    expected.plan.small = 100;
    expected.plan.wide = -20;
    expected.plan.number = 7;
    expected.plan.source = Source::mains;
    expected.plan.pressure = MemoryPressure::warning;
    expected.label = "\U0001F600/风";
    EXPECT_EQ(decodeJson<Record>(
                  "\t{\"extra\": {\"a\": [null, true, {\"b\": 1e308}]}, \"label\" :\r\n "
                  "\"\\ud83d\\ude00\\/\\u98ce\", \"plan\": {\"pressure\": 2.0, \"targets\": null, "
                  "\"source\": \"\\u0061c\", \"number\": 7, \"wide\": -2e1, \"small\": 1e2}} "),
              expected);
}

TEST(JsonCodecTest, NeverWritesWhatIsNotJson) {
    for (const double number : {std::nan(""), testing::kInfinity}) {
        try {
            encodeJson(std::vector{FanTarget{0, 1}, FanTarget{1, number}});
            ADD_FAILURE();
        } catch (const ScopeError& error) {
            EXPECT_EQ(error.message(), "JSON 成员 rpm 不是有限数值，无法写出");
        }
    }
    EXPECT_EQ(encodeJson(std::map<std::string, double>{{"a\xFF\"", 1}}), "{\"a\uFFFD\\\"\":1}");
}

std::string refusal(const std::string& text, JsonDates dates = JsonDates::secondsSinceReference) {
    try {
        decodeJson<Record>(text, dates);
        return "accepted";
    } catch (const ScopeError& error) {
        return error.message();
    }
}

// Members of "plan", and what is said of it.
TEST(JsonStrictnessTest, NamesTheMemberThatDoesNotFit) {
    const char* const members[][2] = {
        {R"()", ".small 缺失"},
        {R"("small":"1")", ".small 应为整数"},
        {R"("small":true)", ".small 应为整数"},
        {R"("small":1.5)", ".small 应为整数"},
        {R"("small":2147483648)", ".small 超出数值范围"},
        {R"("wide":9223372036854775808)", ".wide 超出数值范围"},
        {R"("wide":9007199254740992.0)", ".wide 超出数值范围"},
        {R"("wide":1e400)", ".wide 超出数值范围"},
        {R"("x":{"y":[0,-1e999]})", ".x.y[1] 超出数值范围"},
        {R"("id":"0123abcdef456789abcdef0123456789")", ".id 不是有效的 UUID"},
        {R"("source":"AC")", ".source 的取值无法识别"},
        {R"("pressure":3)", ".pressure 的取值无法识别"},
        {R"("when":"2024-05-01T12:30:00Z")", ".when 应为日期"},
        {R"("targets":[{"id":0,"rpm":1},{"id":1}])", ".targets[1].rpm 缺失"},
        // Whatever stands in an object stands there once, known or not, escaped or not.
        {R"("small":1,"\u0073mall":1)", ".small 重复出现"},
        {R"("id":null,"small":1,"id":null)", ".id 重复出现"},
        {R"("x":1,"small":1,"y":2,"x":3)", ".x 重复出现"},
        {R"("q":{"a":1,"b":[{"c":1,"d":2,"c":3}]})", ".q.b[0].c 重复出现"},
        {R"("keys":{"F0Ac":1,"F0Mn":2,"F0Ac":1})", ".keys.F0Ac 重复出现"},
        {R"("x":{"a":1},"y":{"a":1},"a":[{"a":1},{"a":{"a":2}}],"small":1)", ""},
        // Arrays that alternate keys and values.
        {R"("pairs":["ac",["battery",1,"ac"]])", ".pairs.ac 的最后一个键没有值"},
        {R"("pairs":["ac",[],"ac",[]])", ".pairs[2] 重复出现"},
        {R"("pairs":["high",[]])", ".pairs[0] 的取值无法识别"},
        {R"("pairs":[1,[]])", ".pairs[0] 应为文本"},
        {R"("pairs":[[],[]])", ".pairs[0] 应为文本"},
        {R"("pairs":["ac",["battery","1"]])", ".pairs.ac.battery 应为整数"},
        {R"("pairs":{"ac":{"battery":1}})", ".pairs 应为数组"},
    };
    for (const auto& [member, message] : members) {
        EXPECT_EQ(refusal(R"({"plan":{)"s + member + "}}"),
                  *message == 0 ? "accepted" : "JSON 成员 plan"s + message);
    }
    EXPECT_EQ(refusal("{}"), "JSON 成员 plan 缺失");
    for (const char* other : {"null", "[]", "7"}) {
        EXPECT_EQ(refusal(R"({"plan":)"s + other + "}"), "JSON 成员 plan 应为对象");
        EXPECT_EQ(refusal(other), "JSON 内容应为对象");
    }
    for (const auto& [date, message] :
         {std::pair("5", "JSON 成员 plan.when 应为日期"),
          {R"("2024-05-01")", "JSON 成员 plan.when 不是有效的日期"}}) {
        EXPECT_EQ(refusal(R"({"plan":{"small":1,"when":)"s + date + "}}", JsonDates::iso8601),
                  message);
    }
}

TEST(JsonStrictnessTest, RefusesWhatIsNotOneJsonText) {
    const std::string good = R"({"plan":{"small":1}})";
    std::istringstream texts(
        R"({ nul {"plan":{"small":1} {"plan":{"small":1}}{} {"plan":{"small":+1}} )"
        R"({"plan":{"small":.5}} {"plan":{"small":1.}} {"plan":{"small":0x1}} )"
        R"({"plan":{"small":NaN}} {"plan":{"small":1,}} {'plan':{"small":1}} {plan:{"small":1}} )"
        R"({/**/"plan":{"small":1}} {"plan":{"small":1]} {"plan":{"small":1},"label":"\x"} )"
        R"({"plan":{"small":1},"label":"\ud800"} {"plan":{"small":1},"label":"\udc00x"} )"
        "{\"plan\":{\"small\":1},\"label\":\"a\x01\"}");
    for (std::string text; texts >> text;) {
        EXPECT_NE(refusal(text).find("格式错误（第 "), std::string::npos) << text;
    }
    for (const std::string& end : {"x"s, "\0"s, "{"s}) {
        EXPECT_EQ(refusal(good + end), "JSON 内容格式错误（第 21 字节）");
    }
    for (const std::string& begin : {"\0"s, "\xEF\xBB\xBF"s}) {
        EXPECT_EQ(refusal(begin + good), "JSON 内容格式错误（第 1 字节）");
    }
    EXPECT_EQ(refusal(R"({"plan":{"small":01}})"),
              "JSON 成员 plan.small 附近格式错误（第 19 字节）");
    for (const char* bytes : {"\x80", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xE9\xA3"}) {
        EXPECT_EQ(refusal(R"({"plan":{"small":1},"label":")"s + bytes + "\"}"),
                  "JSON 成员 label 附近不是有效的 UTF-8 文本（第 30 字节）");
    }
    EXPECT_EQ(refusal("\x80"), "JSON 内容不是有效的 UTF-8 文本（第 1 字节）");
}

TEST(JsonStrictnessTest, NestingIsBounded) {
    const auto nested = [](std::size_t levels) {
        return R"({"plan":{"small":1},"x":)" + std::string(levels, '[') + "0" +
               std::string(levels, ']') + "}";
    };
    EXPECT_EQ(refusal(nested(15)), "accepted");
    for (const std::size_t levels : {16U, 3000U}) {
        EXPECT_EQ(refusal(nested(levels)),
                  "JSON 成员 x[0][0][0][0][0][0][0][0][0][0][0][0][0][0][0] 嵌套超过 16 层");
    }
}

// A reply carries the message, so it must stay far below a line, and must not carry control bytes
// to somebody's terminal, whatever a hostile line holds.
TEST(JsonStrictnessTest, MessagesStayShortAndPrintable) {
    for (const std::string letter : {"风", "\\u001b[2J\\u0000\\n\\u007f"}) {
        std::string name;
        while (name.size() < 15000) {
            name += letter;
        }
        for (const char* value : {"1e999", "x", "\"\xFF\"", R"({"plan":{"plan":x}})"}) {
            const std::string message =
                refusal("{\"" + name + "\":{\"" + name + "\":" + value + "}}");
            EXPECT_TRUE(message.size() < 250 && !firstInvalidUtf8(message)) << message;
            EXPECT_TRUE(std::ranges::none_of(
                message, [](unsigned char c) { return c < 0x20 || c == 0x7F; }));
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
