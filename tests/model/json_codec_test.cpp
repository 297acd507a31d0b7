// The bytes that records become, and that those bytes become the records.
#include "core/model/json_codec.h"

#include <gtest/gtest.h>

#include <cmath>

#include "core/model/fan_target.h"
#include "core/model/scope_error.h"
#include "core/model/snapshot.h"

namespace ferovane {
namespace {

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

TEST(JsonCodecTest, AbsentMembersAreLeftOut) {
    Everything record;
    record.list.emplace();
    EXPECT_EQ(encodeJson(record),
              R"({"flag":false,"narrow":0,"wide":0,"number":0,"text":"","date":0,)"
              R"("id":"00000000-0000-0000-0000-000000000000","source":"ac","pressure":1,)"
              R"("list":[],"dictionary":{},"profiles":[]})");
    EXPECT_EQ(decodeJson<Everything>(encodeJson(record)), record);
}

TEST(JsonCodecTest, PrettyAndSorted) {
    const JsonStyle style{.dates = JsonDates::iso8601, .pretty = true, .sortedKeys = true};
    EXPECT_EQ(encodeJson(sample(), style), R"({
  "date": "2024-04-30T12:29:59Z",
  "dictionary": {
    "#KEY": 300,
    "F0Ac": 1834.5
  },
  "flag": true,
  "id": "0123ABCD-EF45-6789-ABCD-EF0123456789",
  "list": [
    -1,
    0,
    9
  ],
  "narrow": -2147483648,
  "number": 0.1,
  "pressure": 4,
  "profiles": [
    "ac",
    [],
    "battery",
    [
      "sleep",
      10,
      "displaysleep",
      5
    ]
  ],
  "source": "battery",
  "target": {
    "id": 1,
    "rpm": 2000
  },
  "text": "引号\" 反斜\\ 换行\n 铃\u0007 零\u0001 /",
  "wide": 9223372036854775807
})");
    EXPECT_EQ(encodeJson(std::map<std::string, double>{}, style), "{}");
    Everything whole = sample();
    whole.date = Date{736172999};
    EXPECT_EQ(decodeJson<Everything>(encodeJson(whole, style), JsonDates::iso8601), whole);
}

TEST(JsonCodecTest, AFirstSnapshot) {
    Snapshot snapshot;
    snapshot.date = parseIso8601("2024-05-01T12:30:00Z");
    snapshot.sensors = {{"TC0P", "处理器附近", 61.5}};
    snapshot.fans = {{0, 1834.25, 1200, 6200, false, true}, {1, {}, {}, {}, {}, false}};
    snapshot.totalCPUs = 8;
    snapshot.turbo = TurboState::driverNotLoaded;
    snapshot.smcAvailable = true;
    EXPECT_EQ(
        encodeJson(snapshot),
        R"({"date":736259400,"sensors":[{"key":"TC0P","label":"处理器附近","celsius":61.5}],)"
        R"("fans":[{"id":0,"rpm":1834.25,"minimum":1200,"maximum":6200,"manual":false,)"
        R"("controllable":true},{"id":1,"controllable":false}],"totalCPUs":8,"thermalState":0,)"
        R"("turbo":"driverNotLoaded","lowPower":false,"smcAvailable":true})");
    EXPECT_EQ(decodeJson<Snapshot>(encodeJson(snapshot)), snapshot);

    snapshot.cpuUsage = 12.5;
    snapshot.speedLimit = 100;
    snapshot.schedulerLimit = 100;
    snapshot.availableCPUs = 8;
    snapshot.thermalWarning = 5;
    snapshot.acPower = true;
    snapshot.memoryPressure = MemoryPressure::warning;
    snapshot.additionalSensors = {{"PSTR", "整机功耗 · PSTR", HardwareSensorKind::power, 35.5}};
    EXPECT_EQ(encodeJson(snapshot, {.dates = JsonDates::iso8601}),
              R"({"date":"2024-05-01T12:30:00Z","cpuUsage":12.5,)"
              R"("sensors":[{"key":"TC0P","label":"处理器附近","celsius":61.5}],)"
              R"("fans":[{"id":0,"rpm":1834.25,"minimum":1200,"maximum":6200,"manual":false,)"
              R"("controllable":true},{"id":1,"controllable":false}],"speedLimit":100,)"
              R"("schedulerLimit":100,"availableCPUs":8,"totalCPUs":8,"thermalState":0,)"
              R"("thermalWarning":5,"turbo":"driverNotLoaded","acPower":true,"lowPower":false,)"
              R"("smcAvailable":true,"memoryPressure":2,"additionalSensors":[{"key":"PSTR",)"
              R"("label":"整机功耗 · PSTR","kind":"power","value":35.5}]})");
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

TEST(JsonCodecTest, NumbersKeepEveryBit) {
    for (const double value : {0.1 + 0.2, 1e-300, 1.7976931348623157e308, 5e-324,
                               -45.123456789012345, 736172999.1234567}) {
        EXPECT_EQ((decodeJson<FanTarget>(encodeJson(FanTarget{0, value})).rpm), value);
    }
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
