#include "core/analysis/sensor_catalog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "simulator/machine/simulated_mac.h"

namespace ferovane {
namespace {

using Component = SensorComponent;
using SensorKind = HardwareSensorKind;
using Platform = SensorNamingPlatform;
using ::testing::ElementsAre;

constexpr auto kGeneric = Platform::generic;
constexpr auto kM4 = Platform::appleM4;
constexpr auto kM4Max = Platform::appleM4ProMax;

// "component title explanation", or "" for a key without a meaning.
std::string meaning(const std::string& key, SensorKind kind, Platform platform) {
    const auto found = SensorCatalog::meaning({key, "", kind, 1}, platform);
    return found ? std::string(rawValue(found->component)) + " " + std::string(found->title) + " " +
                       std::string(found->explanation)
                 : "";
}

// Of every rule of the catalogue a key, and where its border to another rule runs.
TEST(SensorCatalogTest, NamesWhatIsKnownAndGuessesNothing) {
    const std::string cpu =
        "cpu 处理器温度探头 反映处理器内部或附近位置的温度。多个探头不代表多个核心。";
    const std::string gpu = "gpu 图形处理器温度探头 反映图形处理器相关位置的温度。";
    const std::string fan = "fan 风扇转速 风扇每分钟实际转动的次数，转速越高通常噪声也越大。";
    const std::string memory = "memory 内存附近温度探头 反映内存附近的温度，并非内存使用率。";
    const struct {
        SensorKind kind;
        std::string key, generic, m4, m4Max;
    } rows[] = {
        {SensorKind::fan, "anything", fan, fan, fan},    // the kind alone decides
        {SensorKind::temperature, "TC", cpu, cpu, cpu},  // a prefix, however little follows
        {SensorKind::temperature, "TCMz", cpu, cpu, cpu},
        {SensorKind::temperature, "T", "", "", ""},
        {SensorKind::temperature, "tC0P", "", "", ""},     // case counts
        {SensorKind::temperature, "TG0P", gpu, gpu, gpu},  // a prefix on every machine
        {SensorKind::temperature, "Tg0K", "", gpu, gpu},   // and in lower case on M4 chips alone
        {SensorKind::temperature, "Tg0G", "", gpu, ""},    // of which each has some of its own
        {SensorKind::temperature, "Tg1U", "", "", gpu},
        {SensorKind::temperature, "Tg0M", "", "", ""},
        {SensorKind::temperature, "Te05", "", cpu, cpu},     // the first of a set
        {SensorKind::temperature, "Tp0e", "", cpu, cpu},     // and the last
        {SensorKind::temperature, "Tp02", "", "", ""},       // not in it
        {SensorKind::temperature, "Tp0", "", "", ""},        // a key in part
        {SensorKind::temperature, "Te05 Te0S", "", "", ""},  // and more than one
        {SensorKind::temperature, "Tm2p", "", memory, memory},
        {SensorKind::temperature, "PCPC", "", "", ""},  // another kind's key
        {SensorKind::power, "PCPX", "", "", ""},
        {SensorKind::power, "", "", "", ""},
        {SensorKind::voltage, "ID0R", "", "", ""},
        {SensorKind::current, "VD0R", "", "", ""},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(meaning(row.key, row.kind, kGeneric), row.generic) << row.key;
        EXPECT_EQ(meaning(row.key, row.kind, kM4), row.m4) << row.key;
        EXPECT_EQ(meaning(row.key, row.kind, kM4Max), row.m4Max) << row.key;
    }
    const struct {
        SensorKind kind;
        const char *key, *meaning;
    } whole[] = {
        // the same on every machine
        {SensorKind::temperature, "TH0A",
         "storage 存储温度探头 反映固态硬盘或存储相关位置的温度。"},
        {SensorKind::temperature, "TB0T", "battery 电池温度探头 反映电池相关位置的温度。"},
        {SensorKind::temperature, "TW0P", "wireless 无线模块温度 反映无线网络模块附近的温度。"},
        {SensorKind::temperature, "TW1P", ""},
        {SensorKind::power, "PSTR",
         "power 整机功耗 设备内部报告的总功率，单位为瓦；不等同于插座功耗。"},
        {SensorKind::power, "PDTR",
         "power 直流输入功耗 设备直流输入侧的功率，单位为瓦；不等同于插座功耗。"},
        {SensorKind::power, "PCPR", "cpu 处理器功耗 处理器相关电路报告的瞬时功率，单位为瓦。"},
        {SensorKind::power, "PG1R",
         "gpu 图形处理器功耗 图形处理器相关电路报告的瞬时功率，单位为瓦。"},
        {SensorKind::power, "PMTR", "memory 内存功耗 内存相关电路报告的瞬时功率，单位为瓦。"},
        {SensorKind::voltage, "VD0R", "power 直流输入电压 设备直流输入侧的电压，单位为伏。"},
        {SensorKind::current, "ID0R", "power 直流输入电流 设备直流输入侧的电流，单位为安。"},
    };
    for (const auto& row : whole) {
        EXPECT_EQ(meaning(row.key, row.kind, kGeneric), row.meaning) << row.key;
        EXPECT_EQ(meaning(row.key, row.kind, kM4), row.meaning) << row.key;
    }
    std::string components;
    for (const Component component : kAllSensorComponents) {
        components += std::string(rawValue(component)) + title(component).data() + " ";
    }
    EXPECT_EQ(components,
              "cpu处理器 gpu图形处理器 memory内存 storage存储 battery电池 wireless无线网络 "
              "fan风扇 power供电 unknown用途未识别 ");
}

std::vector<std::string> shown(const std::vector<HardwareSensorReading>& readings,
                               Platform platform) {
    std::vector<std::string> rows;
    for (const CommonSensorReading& row : SensorCatalog::common(readings, platform)) {
        rows.push_back(row.id + " " + row.title + " " + row.explanation + " " +
                       std::to_string(static_cast<int>(row.kind)) + " " +
                       std::to_string(std::lround(row.value.value_or(-1))));
        for (const std::string& source : row.sources) {
            rows.back() += " " + source;
        }
    }
    return rows;
}

TEST(SensorCatalogTest, FoldsReadingsIntoAShortList) {
    const double none = std::numeric_limits<double>::quiet_NaN();
    const auto celsius = [](const char* key, double value) {
        return HardwareSensorReading{key, key, SensorKind::temperature, value};
    };
    const std::vector<HardwareSensorReading> readings{
        {"PDTR", "输入", SensorKind::power, 40},
        {"F1Ac", "风扇 2", SensorKind::fan, 2100},
        celsius("TH0A", 33),
        celsius("Tp09", 71),
        celsius("TB0T", 30),
        celsius("TC0P", 64),
        celsius("TC1P", none),
        {"PSTR", "整机", SensorKind::power, none},
        {"F0Ac", "风扇 1", SensorKind::fan, none},
        celsius("Tm1p", 48),
        celsius("TG0P", none),
        {"PSTR", "整机", SensorKind::power, 55},
    };
    EXPECT_THAT(
        shown(readings, kM4),
        ElementsAre(
            "cpu 处理器温度 反映处理器运行时的发热情况。 1 71 Tp09 TC0P",
            "memory 内存附近温度 内存附近位置的温度，不代表内存占用。 1 48 Tm1p",
            "storage 存储温度 反映固态硬盘等存储部件的温度。 1 33 TH0A",
            "fan:F1Ac 风扇 2 风扇每分钟实际转动的次数，转速越高通常噪声也越大。 0 2100 F1Ac",
            "fan:F0Ac 风扇 1 风扇每分钟实际转动的次数，转速越高通常噪声也越大。 0 -1 F0Ac",
            "power:PSTR 整机功耗 设备内部报告的总功率，单位为瓦；不等同于插座功耗。 2 55 PSTR"));
    // Without the better key the other; graphics of an M4 mean nothing elsewhere.
    EXPECT_THAT(
        shown({celsius("Tg0K", 50), celsius("TG0P", 60), {"PDTR", "", SensorKind::power, 40}},
              kGeneric),
        ElementsAre("gpu 图形处理器温度 反映图形处理器运行时的发热情况。 1 60 TG0P",
                    "power:PDTR 直流输入功耗 设备直流输入侧的功率，单位为瓦；不等同于插座功耗。 2 "
                    "40 PDTR"));
    EXPECT_TRUE(shown({}, kGeneric).empty());
}

TEST(SensorNamingPlatformTest, KnowsExactlyThreeBrandsAndAsksTheMachineOnce) {
    const std::pair<const char*, Platform> brands[] = {
        {"Apple M4", kM4},
        {"Apple M4 Pro", kM4Max},
        {" Apple M4 Pro\n", kM4Max},
        {"Apple M4 Max", kM4Max},
        {"\t\r\nApple M4 ", kM4},
        {"apple m4", kGeneric},
        {"Apple M4 Ultra", kGeneric},
        {"Apple  M4", kGeneric},
        {"Apple M3 Max", kGeneric},
        {" \n", kGeneric},
        {"", kGeneric},
    };
    for (const auto& [brand, platform] : brands) {
        EXPECT_EQ(detectNamingPlatform(brand), platform) << '"' << brand << '"';
    }
    auto mac = simulator::appleSiliconMac(1);
    mac.setCpuBrand("Apple M4 Max");
    {
        const auto attached = mac.attach();
        ASSERT_EQ(currentNamingPlatform(), kM4Max);
    }
    EXPECT_EQ(currentNamingPlatform(), kM4Max);
}

}  // namespace
}  // namespace ferovane
