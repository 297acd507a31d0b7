#include "core/analysis/sensor_catalog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "core/hardware/smc.h"
#include "simulator/machine/simulated_mac.h"

namespace ferovane {
namespace {

using Component = SensorComponent;
using Kind = HardwareSensorKind;
using Platform = SensorNamingPlatform;
using SensorCatalog::common;
using SensorCatalog::meaning;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr Platform kPlatforms[] = {Platform::generic, Platform::appleM4, Platform::appleM4ProMax};

std::optional<SensorMeaning> meaningOf(const std::string& key, Kind kind, Platform platform) {
    return meaning({key, "", kind, 1}, platform);
}

HardwareSensorReading temperature(const std::string& key, double celsius) {
    return {key, key, Kind::temperature, celsius};
}

TEST(SensorComponentTest, HasARawValueAndATitleEach) {
    const std::pair<const char*, const char*> expected[] = {
        {"cpu", "处理器"},   {"gpu", "图形处理器"}, {"memory", "内存"},
        {"storage", "存储"}, {"battery", "电池"},   {"wireless", "无线网络"},
        {"fan", "风扇"},     {"power", "供电"},     {"unknown", "用途未识别"}};
    ASSERT_EQ(std::size(kAllSensorComponents), std::size(expected));
    for (std::size_t i = 0; i < std::size(expected); ++i) {
        EXPECT_EQ(rawValue(kAllSensorComponents[i]), expected[i].first);
        EXPECT_EQ(title(kAllSensorComponents[i]), expected[i].second);
    }
    EXPECT_EQ(fromRawValue<Component>(std::string_view("CPU")), std::nullopt);
}

TEST(SensorCatalogTest, NamesWhatIsKnownOnEveryMachine) {
    const struct {
        Kind kind;
        std::vector<std::string> keys;
        SensorMeaning meaning;
    } cases[] = {
        {Kind::fan,
         {"F0Ac", "TC0P", "", "anything"},
         {Component::fan, "风扇转速", "风扇每分钟实际转动的次数，转速越高通常噪声也越大。"}},
        {Kind::temperature,
         {"TC0P", "TC", "TCMz", "TC0PX"},
         {Component::cpu, "处理器温度探头",
          "反映处理器内部或附近位置的温度。多个探头不代表多个核心。"}},
        {Kind::temperature,
         {"TG0P"},
         {Component::gpu, "图形处理器温度探头", "反映图形处理器相关位置的温度。"}},
        {Kind::temperature,
         {"TH0A"},
         {Component::storage, "存储温度探头", "反映固态硬盘或存储相关位置的温度。"}},
        {Kind::temperature,
         {"TB0T"},
         {Component::battery, "电池温度探头", "反映电池相关位置的温度。"}},
        {Kind::temperature,
         {"TW0P"},
         {Component::wireless, "无线模块温度", "反映无线网络模块附近的温度。"}},
        {Kind::power,
         {"PSTR"},
         {Component::power, "整机功耗", "设备内部报告的总功率，单位为瓦；不等同于插座功耗。"}},
        {Kind::power,
         {"PDTR"},
         {Component::power, "直流输入功耗", "设备直流输入侧的功率，单位为瓦；不等同于插座功耗。"}},
        {Kind::power,
         {"PCPC", "PCPT", "PCTR", "PCPR"},
         {Component::cpu, "处理器功耗", "处理器相关电路报告的瞬时功率，单位为瓦。"}},
        {Kind::power,
         {"PG0C", "PG0R", "PG1R"},
         {Component::gpu, "图形处理器功耗", "图形处理器相关电路报告的瞬时功率，单位为瓦。"}},
        {Kind::power,
         {"PMTR"},
         {Component::memory, "内存功耗", "内存相关电路报告的瞬时功率，单位为瓦。"}},
        {Kind::voltage,
         {"VD0R"},
         {Component::power, "直流输入电压", "设备直流输入侧的电压，单位为伏。"}},
        {Kind::current,
         {"ID0R"},
         {Component::power, "直流输入电流", "设备直流输入侧的电流，单位为安。"}},
    };
    for (const auto& expected : cases) {
        for (const std::string& key : expected.keys) {
            for (const Platform platform : kPlatforms) {
                EXPECT_EQ(meaningOf(key, expected.kind, platform), expected.meaning) << key;
            }
        }
    }
}

TEST(SensorCatalogTest, GuessesNothing) {
    const struct {
        Kind kind;
        std::vector<std::string> keys;
    } cases[] = {
        {Kind::temperature,
         {"TW0p", "TW0P ", "TW0", "TW1P", "tC0P", "T", "", "Tm0P", "Tp02", "Te06", "Tg0M", "Tm3p",
          "Tp0", "Tp01 Tp05", "PCPC", "Ts0P"}},
        {Kind::power, {"PCPC ", "PSTRX", "PST", "PG0", "pSTR", "VD0R", ""}},
        {Kind::voltage, {"ID0R", "VD0", "VP0R", ""}},
        {Kind::current, {"VD0R", "ID0", "IBAC", ""}},
    };
    for (const auto& unknown : cases) {
        for (const std::string& key : unknown.keys) {
            for (const Platform platform : kPlatforms) {
                EXPECT_EQ(meaningOf(key, unknown.kind, platform), std::nullopt) << key;
            }
        }
    }
}

TEST(SensorCatalogTest, KnowsDieSensorsOfTwoChipFamiliesOnly) {
    const struct {
        std::string keys;
        Component component;
        bool appleM4, appleM4ProMax;
    } cases[] = {
        {"Te05 Te0S Te09 Te0H Tp01 Tp05 Tp09 Tp0D Tp0V Tp0Y Tp0b Tp0e", Component::cpu, true, true},
        {"Tg0K Tg0L Tg0d Tg0e Tg0j Tg0k", Component::gpu, true, true},
        {"Tg0G Tg0H", Component::gpu, true, false},
        {"Tg1U Tg1k", Component::gpu, false, true},
        {"Tm0p Tm1p Tm2p", Component::memory, true, true},
    };
    for (const auto& set : cases) {
        std::istringstream keys(set.keys);
        for (std::string key; keys >> key;) {
            const auto on = [&](Platform platform) {
                const auto found = meaningOf(key, Kind::temperature, platform);
                EXPECT_TRUE(!found || found->component == set.component) << key;
                return found.has_value();
            };
            EXPECT_FALSE(on(Platform::generic)) << key;
            EXPECT_EQ(on(Platform::appleM4), set.appleM4) << key;
            EXPECT_EQ(on(Platform::appleM4ProMax), set.appleM4ProMax) << key;
            EXPECT_EQ(meaningOf(key, Kind::power, Platform::appleM4), std::nullopt) << key;
        }
    }
    EXPECT_EQ(meaningOf("Tm0p", Kind::temperature, Platform::appleM4),
              (SensorMeaning{Component::memory, "内存附近温度探头",
                             "反映内存附近的温度，并非内存使用率。"}));
}

TEST(SensorCatalogTest, FoldsReadingsIntoAShortList) {
    const double none = std::numeric_limits<double>::quiet_NaN();
    const std::vector<HardwareSensorReading> readings{
        {"PDTR", "输入", Kind::power, 40},
        {"F1Ac", "风扇 2", Kind::fan, 2100},
        temperature("TH0A", 33),
        temperature("Tp09", 71),
        temperature("TB0T", 30),
        temperature("TC0P", 64),
        temperature("TC1P", none),
        {"PSTR", "整机", Kind::power, none},
        {"F0Ac", "风扇 1", Kind::fan, none},
        temperature("Tm1p", 48),
        temperature("TG0P", none),
        {"PSTR", "整机", Kind::power, 55},
    };
    EXPECT_THAT(
        common(readings, Platform::appleM4),
        ElementsAre(CommonSensorReading{"cpu",
                                        "处理器温度",
                                        "反映处理器运行时的发热情况。",
                                        Kind::temperature,
                                        71,
                                        {"Tp09", "TC0P"}},
                    CommonSensorReading{"memory",
                                        "内存附近温度",
                                        "内存附近位置的温度，不代表内存占用。",
                                        Kind::temperature,
                                        48,
                                        {"Tm1p"}},
                    CommonSensorReading{"storage",
                                        "存储温度",
                                        "反映固态硬盘等存储部件的温度。",
                                        Kind::temperature,
                                        33,
                                        {"TH0A"}},
                    CommonSensorReading{"fan:F1Ac",
                                        "风扇 2",
                                        "风扇每分钟实际转动的次数，转速越高通常噪声也越大。",
                                        Kind::fan,
                                        2100,
                                        {"F1Ac"}},
                    CommonSensorReading{"fan:F0Ac",
                                        "风扇 1",
                                        "风扇每分钟实际转动的次数，转速越高通常噪声也越大。",
                                        Kind::fan,
                                        std::nullopt,
                                        {"F0Ac"}},
                    CommonSensorReading{"power:PSTR",
                                        "整机功耗",
                                        "设备内部报告的总功率，单位为瓦；不等同于插座功耗。",
                                        Kind::power,
                                        55,
                                        {"PSTR"}}));
    EXPECT_THAT(common({}, Platform::generic), IsEmpty());

    const std::vector<HardwareSensorReading> graphics{
        temperature("Tg0K", 50), temperature("TG0P", 60), {"PDTR", "", Kind::power, 40}};
    const auto rows = common(graphics, Platform::generic);
    ASSERT_EQ(rows.size(), 2);
    EXPECT_EQ(rows[0], (CommonSensorReading{"gpu",
                                            "图形处理器温度",
                                            "反映图形处理器运行时的发热情况。",
                                            Kind::temperature,
                                            60,
                                            {"TG0P"}}));
    EXPECT_EQ(rows[1].id, "power:PDTR");
}

// The component rows of real machines in °C, found by another program than ours; absent where the
// machine tells of no such probe. Apple Silicon names graphics "Tg…" and memory "Tm…", which the
// catalogue knows on M4 chips alone; what two of these tables hold at "Te…" and "Tp…" is cooler
// than the same chip's "TCMz".
struct RealRows {
    const char* machine;
    Platform platform;
    std::optional<double> cpu, gpu, memory, storage;
};

const RealRows kRealRows[] = {
    {"MacBook10_1", Platform::generic, 59.13, {}, {}, 38.38},
    {"MacBook7_1", Platform::generic, 58.38, {}, {}, 30.75},
    {"MacBookAir7_2", Platform::generic, 54, {}, {}, 31.38},
    {"MacBookPro8_1", Platform::generic, 71, {}, {}, {}},
    {"MacBookPro10_1", Platform::generic, 97.91, 70.44, {}, 64},
    {"MacBookPro11_4", Platform::generic, 58.34, {}, {}, 40.62},
    {"MacBookPro13_3", Platform::generic, 67, 40.81, {}, 33.75},
    {"MacBookPro15_1", Platform::generic, 48, 36.5, {}, 28.44},
    {"MacBookPro16_1", Platform::generic, 49, 37.19, {}, 36.04},
    {"MacPro7_1", Platform::generic, 36.72, {}, {}, 30.12},
    {"Macmini7_1", Platform::generic, 44.53, {}, {}, 35},
    {"iMac11_2", Platform::generic, 47, 44, {}, {}},
    {"iMac18_3", Platform::generic, 56, 52, {}, 53},
    {"apple-m1-pro-temperatures", Platform::generic, 75.43, {}, {}, 44.46},
    {"apple-m2-temperatures", Platform::generic, 40.42, {}, {}, 32.16},
    {"apple-m3-max-temperatures", Platform::generic, 72.78, {}, {}, 22.78},
    {"apple-m4-temperatures", Platform::generic, 55.83, {}, {}, 21.32},
    {"apple-m4-temperatures", Platform::appleM4, 55.83, 30.88, {}, 21.32},
    {"apple-m4-pro-temperatures", Platform::appleM4ProMax, 80.39, 57.16, {}, 38.39},
    {"apple-m5-pro-temperatures", Platform::generic, 62.59, {}, {}, 29.7},
};

std::vector<HardwareSensorReading> readingsOf(const std::string& machine) {
    std::ifstream file(FEROVANE_TEST_DATA "/controllers/" + machine + ".csv", std::ios::binary);
    if (!file.is_open()) {
        file.open(FEROVANE_TEST_DATA "/../../simulator/models/" + machine + ".csv");
    }
    EXPECT_TRUE(file.is_open()) << machine;
    auto mac = simulator::macFromKeyDump(std::string(std::istreambuf_iterator<char>(file), {}));
    if (!mac.hasKey("#KEY")) {  // a table of temperatures alone
        const std::size_t count = mac.keyCount() + 1;
        mac.setKey(
            "#KEY", "ui32",
            {0, 0, static_cast<std::uint8_t>(count >> 8), static_cast<std::uint8_t>(count & 0xFF)});
    }
    const auto attached = mac.attach();
    SMC smc;
    std::vector<HardwareSensorReading> readings;
    for (const auto& [key, kind] : smc.sensorKeys()) {
        readings.push_back({key, key, kind, smc.number(key).value()});
    }
    return readings;
}

TEST(SensorCatalogTest, ClaimsNoMoreOfRealMachinesThanTheyTell) {
    for (const RealRows& expected : kRealRows) {
        const auto readings = readingsOf(expected.machine);
        const auto rows = common(readings, expected.platform);
        const std::pair<const char*, std::optional<double>> components[] = {
            {"cpu", expected.cpu},
            {"gpu", expected.gpu},
            {"memory", expected.memory},
            {"storage", expected.storage}};
        for (const auto& [id, celsius] : components) {
            const auto row = std::ranges::find(rows, id, &CommonSensorReading::id);
            EXPECT_EQ(row != rows.end(), celsius.has_value()) << expected.machine << " " << id;
            if (row != rows.end() && celsius) {
                EXPECT_NEAR(*row->value, *celsius, 0.006) << expected.machine << " " << id;
            }
        }
        EXPECT_LE(std::ranges::count(rows, Kind::power, &CommonSensorReading::kind), 1);
        EXPECT_EQ(std::ranges::count(rows, Kind::fan, &CommonSensorReading::kind),
                  std::ranges::count(readings, Kind::fan, &HardwareSensorReading::kind));
    }
}

}  // namespace
}  // namespace ferovane
