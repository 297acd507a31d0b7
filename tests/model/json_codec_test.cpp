// The bytes that records become, and that those bytes become the records.
#include "core/model/json_codec.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>

#include "core/model/fan_target.h"
#include "core/model/scope_error.h"
#include "core/model/snapshot.h"
#include "tests/support/dice.h"

namespace ferovane {
namespace {

using testing::Dice;

enum class Source { mains, battery };
enum class Setting { sleep, display };

// One of each kind of member that a record can have.
struct Everything {
    bool flag = false;
    std::int32_t narrow = 0;
    std::int64_t wide = 0;
    double number = 0;
    std::string text;
    Date date;
    Uuid id;
    Source source = Source::mains;
    MemoryPressure pressure = MemoryPressure::normal;
    std::optional<std::vector<std::int64_t>> list;
    std::map<std::string, double> dictionary;
    std::map<Source, std::map<Setting, std::int64_t>> profiles;
    std::optional<FanTarget> target;

    bool operator==(const Everything&) const = default;

    static constexpr auto jsonFields() {
        using R = Everything;
        return std::tuple{jsonField("flag", &R::flag),
                          jsonField("narrow", &R::narrow),
                          jsonField("wide", &R::wide),
                          jsonField("number", &R::number),
                          jsonField("text", &R::text),
                          jsonField("date", &R::date),
                          jsonField("id", &R::id),
                          jsonField("source", &R::source),
                          jsonField("pressure", &R::pressure),
                          jsonField("list", &R::list),
                          jsonField("dictionary", &R::dictionary),
                          jsonField("profiles", &R::profiles),
                          jsonField("target", &R::target)};
    }
};

}  // namespace

template <>
struct RawEnum<Source> {
    static constexpr std::array<RawCase<Source>, 2> cases{
        {{Source::mains, "ac"}, {Source::battery, "battery"}}};
};
template <>
struct RawEnum<Setting> {
    static constexpr std::array<RawCase<Setting>, 2> cases{
        {{Setting::sleep, "sleep"}, {Setting::display, "displaysleep"}}};
};

namespace {

Everything sample() {
    Everything record;
    record.flag = true;
    record.narrow = std::numeric_limits<std::int32_t>::min();
    record.wide = std::numeric_limits<std::int64_t>::max();
    record.number = 0.1;
    record.text = "引号\" 反斜\\ 换行\n 铃\a 零\u0001 /";
    record.date = Date{736172999.5};
    record.id = *Uuid::parse("0123abcd-ef45-6789-abcd-ef0123456789");
    record.source = Source::battery;
    record.pressure = MemoryPressure::critical;
    record.list = {-1, 0, 9};
    record.dictionary = {{"F0Ac", 1834.5}, {"#KEY", 300}};
    record.profiles = {{Source::battery, {{Setting::sleep, 10}, {Setting::display, 5}}},
                       {Source::mains, {}}};
    record.target = FanTarget{1, 2000};
    return record;
}

constexpr const char* kSampleText =
    R"({"flag":true,"narrow":-2147483648,"wide":9223372036854775807,"number":0.1,)"
    R"("text":"引号\" 反斜\\ 换行\n 铃\u0007 零\u0001 /","date":736172999.5,)"
    R"("id":"0123ABCD-EF45-6789-ABCD-EF0123456789","source":"battery","pressure":4,)"
    R"("list":[-1,0,9],"dictionary":{"#KEY":300,"F0Ac":1834.5},)"
    R"("profiles":["ac",[],"battery",["sleep",10,"displaysleep",5]],"target":{"id":1,"rpm":2000}})";

TEST(JsonCodecTest, EveryKindOfMemberBothWays) {
    EXPECT_EQ(encodeJson(sample()), kSampleText);
    EXPECT_EQ(decodeJson<Everything>(kSampleText), sample());
}

std::string randomText(Dice& dice) {
    std::string text;
    for (int length = dice.upTo(9); length > 0; --length) {
        const char* pieces[] = {"a",  "\"",         "\\", "\n",   "\x01",
                                "风", "\U0001F600", "/",  "\x1F", " "};
        text += pieces[dice.upTo(9)];
    }
    return text;
}

double randomNumber(Dice& dice) {
    const double any = std::bit_cast<double>(dice.bits());
    return dice.oneIn(3) && std::isfinite(any) ? any : dice.upTo(2000) / 8.0 - 100;
}

Everything randomRecord(Dice& dice) {
    Everything record;
    record.flag = dice.oneIn(2);
    record.narrow = static_cast<std::int32_t>(dice.bits());
    record.wide = static_cast<std::int64_t>(dice.bits());
    record.number = randomNumber(dice);
    record.text = randomText(dice);
    record.date = Date{static_cast<double>(dice.upTo(1 << 30))};
    record.id = Uuid::random();
    record.source = static_cast<Source>(dice.upTo(1));
    record.pressure = static_cast<MemoryPressure>(1 << dice.upTo(2));
    record.list =
        dice.maybe(3, std::vector<std::int64_t>(static_cast<std::size_t>(dice.upTo(3)), -7));
    record.target = dice.maybe(3, FanTarget{dice.upTo(9), randomNumber(dice)});
    for (int i = dice.upTo(3); i > 0; --i) {
        record.dictionary[randomText(dice)] = randomNumber(dice);
        record.profiles[static_cast<Source>(dice.upTo(1))][static_cast<Setting>(dice.upTo(1))] = i;
    }
    return record;
}

TEST(JsonCodecTest, WhatIsWrittenReadsBackInEveryStyle) {
    for (unsigned seed = 0; seed < 3000; ++seed) {
        Dice dice(seed);
        const Everything record = randomRecord(dice);
        const JsonStyle style{
            .dates = dice.oneIn(2) ? JsonDates::iso8601 : JsonDates::secondsSinceReference,
            .pretty = dice.oneIn(2),
            .sortedKeys = dice.oneIn(2)};
        const std::string text = encodeJson(record, style);
        ASSERT_EQ(decodeJson<Everything>(text, style.dates), record) << "seed " << seed << text;
        ASSERT_EQ(text.find(R"("list")") != text.npos, record.list.has_value()) << text;
        ASSERT_EQ(text.find('\n') != text.npos, style.pretty);
    }
}

TEST(JsonCodecTest, PrettyAndSorted) {
    const JsonStyle style{.dates = JsonDates::iso8601, .pretty = true, .sortedKeys = true};
    EXPECT_EQ(encodeJson(std::vector{FanTarget{1, 2000}}, style),
              "[\n  {\n    \"id\": 1,\n    \"rpm\": 2000\n  }\n]");
    EXPECT_EQ(encodeJson(sample().profiles, style),
              "[\n  \"ac\",\n  [],\n  \"battery\",\n  [\n    \"sleep\",\n    10,\n    "
              "\"displaysleep\",\n    5\n  ]\n]");
    EXPECT_EQ(encodeJson(std::map<std::string, double>{}, style), "{}");
    const std::string text = encodeJson(sample(), style);
    EXPECT_TRUE(text.starts_with("{\n  \"date\": \"2024-04-30T12:29:59Z\",\n  \"dictionary\": {"));
    EXPECT_LT(text.find("\"target\""), text.find("\"text\""));
    EXPECT_TRUE(text.ends_with(",\n  \"wide\": 9223372036854775807\n}"));
}

TEST(JsonCodecTest, AcceptsWhatStandardEncodersWrite) {
    // Any order, white space, escapes, whole numbers with a point or exponent, null for absent,
    // members that nobody knows.
    const auto record = decodeJson<Everything>(
        "\t{\"extra\": {\"a\": [null, true, {\"b\": 1e308}]}, \"target\": null, \"list\" : [1.0, "
        "2e1],\r\n \"profiles\": [], \"dictionary\": {}, \"pressure\": 2.0, \"source\": "
        "\"\\u0061c\","
        "\"id\": \"0123abcd-ef45-6789-abcd-ef0123456789\", \"date\": 5, \"text\": "
        "\"\\ud83d\\ude00\\/\\u98ce\", \"number\": 7, \"wide\": -0, \"narrow\": 1e2, \"flag\": "
        "false} ");
    EXPECT_EQ(record.list, (std::vector<std::int64_t>{1, 20}));
    EXPECT_EQ(record.text, "\U0001F600/风");
    EXPECT_EQ(record.number, 7);
    EXPECT_EQ(record.narrow, 100);
    EXPECT_EQ(record.pressure, MemoryPressure::warning);
    EXPECT_EQ(record.source, Source::mains);
    EXPECT_EQ(record.target, std::nullopt);
}

TEST(JsonCodecTest, NeverWritesWhatIsNotJson) {
    try {
        encodeJson(std::vector{FanTarget{0, 1}, FanTarget{1, std::nan("")}});
        ADD_FAILURE();
    } catch (const ScopeError& error) {
        EXPECT_EQ(error.message(), "JSON 成员 rpm 不是有限数值，无法写出");
    }
    EXPECT_THROW(encodeJson(FanTarget{0, INFINITY}), ScopeError);
    EXPECT_EQ(encodeJson(std::map<std::string, double>{{"a\xFF\"", 1}}), "{\"a\uFFFD\\\"\":1}");
}

}  // namespace
}  // namespace ferovane
