// What readings are called in front of a user, and what is told of battery and memory.
#include <gtest/gtest.h>

#include <cmath>
#include <sstream>
#include <string>
#include <vector>

#include "core/analysis/sensor_catalog.h"
#include "core/analysis/system_telemetry.h"
#include "core/analysis/system_telemetry_readings.h"
#include "core/model/json_codec.h"
#include "simulator/machine/simulated_mac.h"
#include "tests/support/dice.h"

namespace ferovane::testing {
namespace {

using SensorKind = HardwareSensorKind;
using Platform = SensorNamingPlatform;
constexpr auto kHeat = SensorKind::temperature;
constexpr auto kWatts = SensorKind::power;

// Of every rule of the catalogue keys, and where its border to another rule runs: the kind, the
// platforms by number (on all others the keys have no meaning), the keys, and what they mean.
constexpr auto kMeanings = R"(
fan 012 any,F0Ac fan 风扇转速 风扇每分钟实际转动的次数，转速越高通常噪声也越大。
temperature 012 TC,TCMz cpu 处理器温度探头 反映处理器内部或附近位置的温度。多个探头不代表多个核心。
temperature 12 Te05,Tp09,Tp0e cpu 处理器温度探头 反映处理器内部或附近位置的温度。多个探头不代表多个核心。
temperature 012 TG0P gpu 图形处理器温度探头 反映图形处理器相关位置的温度。
temperature 12 Tg0K,Tg0k gpu 图形处理器温度探头 反映图形处理器相关位置的温度。
temperature 1 Tg0G,Tg0H gpu 图形处理器温度探头 反映图形处理器相关位置的温度。
temperature 2 Tg1U,Tg1k gpu 图形处理器温度探头 反映图形处理器相关位置的温度。
temperature 012 TH0A storage 存储温度探头 反映固态硬盘或存储相关位置的温度。
temperature 012 TB0T battery 电池温度探头 反映电池相关位置的温度。
temperature 012 TW0P wireless 无线模块温度 反映无线网络模块附近的温度。
temperature 12 Tm0p,Tm2p memory 内存附近温度探头 反映内存附近的温度，并非内存使用率。
temperature - T,tC0P,TW1P,Tg0M,Tp02,Tp0,PCPC -
power 012 PSTR power 整机功耗 设备内部报告的总功率，单位为瓦；不等同于插座功耗。
power 012 PDTR power 直流输入功耗 设备直流输入侧的功率，单位为瓦；不等同于插座功耗。
power 012 PCPC,PCPR cpu 处理器功耗 处理器相关电路报告的瞬时功率，单位为瓦。
power 012 PG0C,PG1R gpu 图形处理器功耗 图形处理器相关电路报告的瞬时功率，单位为瓦。
power 012 PMTR memory 内存功耗 内存相关电路报告的瞬时功率，单位为瓦。
power - ,PCPX,TC0P -
voltage 012 VD0R power 直流输入电压 设备直流输入侧的电压，单位为伏。
voltage - ID0R -
current 012 ID0R power 直流输入电流 设备直流输入侧的电流，单位为安。
current - VD0R -
)";

TEST(SensorCatalogTest, NamesWhatIsKnownAndGuessesNothing) {
    std::istringstream rows(kMeanings);
    std::string kind, platforms, keys, meaning, key;
    while (rows >> kind >> platforms >> keys >> std::ws && std::getline(rows, meaning)) {
        for (std::istringstream each(keys); std::getline(each, key, ',');) {
            for (int platform = 0; platform < 3; ++platform) {
                const auto told = SensorCatalog::meaning(
                    {key, "", *fromRawValue<SensorKind>(kind), 1}, Platform(platform));
                std::ostringstream text;
                told ? text << rawValue(told->component) << " " << told->title << " "
                            << told->explanation
                     : text << "-";
                const bool meant = platforms.find(std::to_string(platform)) != std::string::npos;
                EXPECT_EQ(text.str(), meant ? meaning : "-") << key << " on " << platform;
            }
        }
    }
    EXPECT_FALSE(SensorCatalog::meaning({"Te05 Te0S", "", kHeat, 1}, Platform::appleM4));
    std::string components;
    for (const SensorComponent component : kAllSensorComponents) {
        components += std::string(rawValue(component)) + title(component).data() + " ";
    }
    EXPECT_EQ(components,
              "cpu处理器 gpu图形处理器 memory内存 storage存储 battery电池 wireless无线网络 "
              "fan风扇 power供电 unknown用途未识别 ");
}

// The rows, one a line, of readings that are told as words such as "TC0P=50".
std::string folded(const std::string& readings, Platform platform) {
    std::vector<HardwareSensorReading> list;
    std::istringstream words(readings);
    for (std::string key, value; std::getline(words >> std::ws, key, '=') && words >> value;) {
        const auto kind = key[0] == 'F' ? SensorKind::fan : key[0] == 'P' ? kWatts : kHeat;
        list.push_back({key, "label of " + key, kind, std::stod(value)});
    }
    std::ostringstream text;
    for (const CommonSensorReading& row : SensorCatalog::common(list, platform)) {
        text << row.id << " " << row.title << " " << row.explanation << " " << rawValue(row.kind)
             << " " << row.value.value_or(-1);
        for (const std::string& source : row.sources) {
            text << " " << source;
        }
        text << "\n";
    }
    return text.str();
}

TEST(SensorCatalogTest, FoldsReadingsIntoAShortList) {
    EXPECT_EQ(folded("PDTR=40 F1Ac=2100 TH0A=33 Tp09=71 TB0T=30 TC0P=64 TC1P=nan PSTR=nan "
                     "F0Ac=nan Tm1p=48 TG0P=nan PSTR=55",
                     Platform::appleM4),
              R"(cpu 处理器温度 反映处理器运行时的发热情况。 temperature 71 Tp09 TC0P
memory 内存附近温度 内存附近位置的温度，不代表内存占用。 temperature 48 Tm1p
storage 存储温度 反映固态硬盘等存储部件的温度。 temperature 33 TH0A
fan:F1Ac label of F1Ac 风扇每分钟实际转动的次数，转速越高通常噪声也越大。 fan 2100 F1Ac
fan:F0Ac label of F0Ac 风扇每分钟实际转动的次数，转速越高通常噪声也越大。 fan -1 F0Ac
power:PSTR 整机功耗 设备内部报告的总功率，单位为瓦；不等同于插座功耗。 power 55 PSTR
)");
    // Without the better key the other; graphics of an M4 mean nothing elsewhere.
    EXPECT_EQ(folded("Tg0K=70 TG0P=60 PDTR=40", Platform::generic),
              R"(gpu 图形处理器温度 反映图形处理器运行时的发热情况。 temperature 60 TG0P
power:PDTR 直流输入功耗 设备直流输入侧的功率，单位为瓦；不等同于插座功耗。 power 40 PDTR
)");
}

TEST(SensorNamingPlatformTest, KnowsExactlyThreeBrandsAndAsksTheMachineOnce) {
    const std::vector<std::string> brands[] = {
        {"apple m4", "Apple M4 Ultra", "Apple  M4", "Apple M3 Max", " \n", ""},
        {"Apple M4", "\t\r\nApple M4 "},
        {"Apple M4 Pro", " Apple M4 Pro\n", "Apple M4 Max"}};
    for (int platform = 0; platform < 3; ++platform) {
        for (const std::string& brand : brands[platform]) {
            EXPECT_EQ(detectNamingPlatform(brand), Platform(platform)) << '"' << brand << '"';
        }
    }
    auto mac = simulator::appleSiliconMac(1);
    mac.setCpuBrand("Apple M4 Max");
    {
        const auto attached = mac.attach();
        ASSERT_EQ(currentNamingPlatform(), Platform::appleM4ProMax);
    }
    EXPECT_EQ(currentNamingPlatform(), Platform::appleM4ProMax);
}

TEST(SystemTelemetryTest, ComputesTheBatteryPowerOfCredibleReadingsOnly) {
    const std::optional<double> none;
    const std::optional<double> cases[][3] = {
        // millivolts, milliamps, watts
        {12000, -1500, -18},    {12000, 1500, 18},        {12000, 0, 0},   {1000, 1, 0.001},
        {30000, 29999, 899.97}, {30000, -29999, -899.97}, {999, 1, none},  {30001, 1, none},
        {12000, 30000, none},   {12000, -30000, none},    {kNaN, 1, none}, {12000, kNaN, none},
        {none, 1, none},        {12000, none, none}};
    for (const auto& [millivolts, milliamps, watts] : cases) {
        EXPECT_EQ(SystemTelemetry::watts(millivolts, milliamps), watts)
            << millivolts.value_or(-1) << " mV, " << milliamps.value_or(-1) << " mA";
    }
}

TEST(SystemTelemetryTest, CountsMemoryAsUsersKnowIt) {
    constexpr double kGiB = 1024.0 * 1024 * 1024;
    constexpr FVBattery kNoBattery{kNaN, kNaN, kNaN, -1, -1};
    const struct {
        std::optional<FVMemory> memory;
        std::optional<double> used;
        double total;
        std::optional<double> percent;
    } cases[] = {
        {FVMemory{16384, 400000, 100000, 150000, 74288, 16ULL << 30}, 8 * kGiB, 16 * kGiB, 50},
        {FVMemory{16384, 4, 5, 131072, 131072, 16ULL << 30}, 4 * kGiB, 16 * kGiB,
         25},  // inconsistent
        {FVMemory{0, 0, 0, 0, 0, 1 << 30}, {}, kGiB, {}},
        {FVMemory{16384, 0, 0, 0, 0, 0}, 0, 0, {}},
        {{}, {}, 0, {}},
    };
    for (const auto& [memory, used, total, percent] : cases) {
        const auto telemetry = telemetryFrom(Date{1}, kNoBattery, memory);
        EXPECT_EQ(telemetry, (SystemTelemetry{Date{1}, {}, {}, {}, {}, used, total}));
        EXPECT_EQ(telemetry.memoryPercent(), percent);
    }
}

TEST(SystemTelemetryTest, ReadsThisMachine) {
    using simulator::Property;
    auto mac = simulator::intelMac(1);
    const auto attached = mac.attach();
    mac.set(Property::kBatteryPresent, 1);
    mac.set(Property::kBatteryPercent, 64);
    mac.set(Property::kBatteryMillivolts, 11400);
    mac.set(Property::kBatteryMilliamps, -2000);
    mac.set(Property::kBatteryCharging, 0);
    mac.set(Property::kBatteryCycles, 321);
    auto telemetry = SystemTelemetry::read();
    // Memory answers from the machine that the tests run on.
    EXPECT_TRUE(telemetry.memoryPercent() > 0 && telemetry.memoryPercent() < 100);
    EXPECT_LT(std::abs(Date::now() - telemetry.date), 60);
    telemetry = {Date{10},
                 telemetry.batteryPercent,
                 telemetry.batteryWatts,
                 telemetry.charging,
                 telemetry.cycles,
                 8,
                 16};
    const std::string text =
        R"({"date":10,"batteryPercent":64,"batteryWatts":-22.8,"charging":false,"cycles":321,)"
        R"("memoryUsed":8,"memoryTotal":16})";
    EXPECT_EQ(encodeJson(telemetry), text);
    EXPECT_EQ(decodeJson<SystemTelemetry>(text), telemetry);
    mac.set(Property::kBatteryPresent, 0);
    const SystemTelemetry desktop = SystemTelemetry::read();
    EXPECT_EQ(desktop, (SystemTelemetry{
                           desktop.date, {}, {}, {}, {}, desktop.memoryUsed, desktop.memoryTotal}));
}

}  // namespace
}  // namespace ferovane::testing
