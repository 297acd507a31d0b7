// The sensor rules on the key tables of real machines (tests/data/controllers).
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <string_view>

#include "core/hardware/hardware_sampler.h"
#include "core/hardware/smc.h"
#include "simulator/machine/simulated_mac.h"

namespace ferovane {
namespace {

using Kind = HardwareSensorKind;

std::string keyDump(const std::string& name) {
    const std::string path = FEROVANE_TEST_DATA "/controllers/" + name + ".csv";
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file.is_open()) << path;
    return {std::istreambuf_iterator<char>(file), {}};
}

struct Hottest {
    std::string_view key;
    double celsius;
};

struct RealMachine {
    std::string name;
    int fan, current, power, temperature, voltage;  // sensors kept of each kind
    std::optional<Hottest> cpu, gpu, storage;

    friend std::ostream& operator<<(std::ostream& stream, const RealMachine& machine) {
        return stream << machine.name;
    }
};

// Counted by another program than ours. All MacBook7,1 keys of parts it lacks (IZAP, PZOD …) stand
// at the raw 8100 of a signed type and are left out, as are the 15 cores of the M4 Pro that this
// chip does not have, whose sensors read their bare calibration offsets (1.5, 2.2, 5.2). The Apple
// Silicon tables hold temperature keys alone; graphics keys are named "Tg…" there, which is no
// category of its own.
const RealMachine kMachines[] = {
    {"MacBook10_1", 0, 22, 32, 25, 4, {{"TC0F", 59.13}}, {}, {{"TH0A", 38.38}}},
    {"MacBook7_1", 1, 6, 7, 19, 3, {{"TC0D", 58.38}}, {}, {{"TH0P", 30.75}}},
    {"MacBookAir7_2", 1, 19, 25, 27, 6, {{"TC1C", 54}}, {}, {{"THSP", 31.38}}},
    {"MacBookPro8_1", 1, 7, 11, 19, 4, {{"TCGC", 71}}, {}, {}},
    {"MacBookPro10_1", 2, 22, 35, 37, 8, {{"TC0F", 97.91}}, {{"TG1F", 70.44}}, {{"TH0A", 64}}},
    {"MacBookPro11_4", 2, 20, 30, 38, 4, {{"TC0F", 58.34}}, {}, {{"TH0A", 40.62}}},
    {"MacBookPro13_3", 2, 35, 49, 40, 7, {{"TC3C", 67}}, {{"TG0P", 40.81}}, {{"TH0A", 33.75}}},
    {"MacBookPro15_1", 2, 36, 48, 39, 7, {{"TC1C", 48}}, {{"TG0P", 36.5}}, {{"TH0X", 28.44}}},
    {"MacBookPro16_1", 2, 36, 50, 44, 7, {{"TC2C", 49}}, {{"TG0P", 37.19}}, {{"TH0X", 36.04}}},
    {"MacPro7_1", 4, 26, 50, 124, 8, {{"TCXc", 36.72}}, {}, {{"TH0P", 30.12}}},
    {"Macmini7_1", 1, 13, 24, 37, 7, {{"TC0F", 44.53}}, {}, {{"TH1a", 35}}},
    {"iMac11_2", 3, 7, 10, 32, 6, {{"TC1C", 47}}, {{"TG0p", 44}}, {}},
    {"iMac18_3", 1, 21, 39, 68, 6, {{"TC3c", 56}}, {{"TG1P", 52}}, {{"TH1A", 53}}},
    {"apple-m1-pro-temperatures", 0, 0, 0, 178, 0, {{"TCMz", 75.43}}, {}, {{"TH0x", 44.46}}},
    {"apple-m2-temperatures", 0, 0, 0, 101, 0, {{"TCMz", 40.42}}, {}, {{"TH0a", 32.16}}},
    {"apple-m3-max-temperatures", 0, 0, 0, 248, 0, {{"TCMz", 72.78}}, {}, {{"TH0a", 22.78}}},
    {"apple-m4-temperatures", 0, 0, 0, 168, 0, {{"TCMz", 55.83}}, {}, {{"TH0A", 21.32}}},
    {"apple-m4-pro-temperatures", 0, 0, 0, 209, 0, {{"TCMz", 80.39}}, {}, {{"TH0a", 38.39}}},
    {"apple-m5-pro-temperatures", 0, 0, 0, 218, 0, {{"TCMb", 62.59}}, {}, {{"TH0b", 29.7}}},
};

// Present in one table or another, readable, within the range of a temperature or a current, and
// no measurement.
const std::set<std::string> kLookAlikes{
    "TC0G", "TC0J", "TCPG", "TN1G", "TH0O", "TH1O", "TMBS", "TsTP", "TsFD", "TsFS", "TsWS", "TsCH",
    "TsHS", "TsTH", "TR0Z", "TVMr", "TVMR", "TVMX", "TVMD", "TVms", "TVXX", "Ta05", "Ta01", "Ta09",
    "Tf06", "Tf0C", "Tf16", "Tz11", "TTPD", "TVHG", "TVHH", "PCPL", "PTHC", "PZ0E", "PZ1E", "PDCC",
    "PD0K", "PSHC", "PFHC", "ID2A", "ID2J", "IDTA", "IPBT", "VP0u", "VP0d"};

class RealControllerTest : public testing::TestWithParam<RealMachine> {};

TEST_P(RealControllerTest, KeepsMeasurementsOnly) {
    const auto& machine = GetParam();
    auto mac = simulator::macFromKeyDump(keyDump(machine.name));
    const auto attached = mac.attach();
    const auto sensors = SMC().sensorKeys();
    const auto kept = [&](Kind kind) {
        return static_cast<int>(std::count_if(sensors.begin(), sensors.end(),
                                              [&](const auto& s) { return s.kind == kind; }));
    };
    EXPECT_EQ(kept(Kind::fan), machine.fan);
    EXPECT_EQ(kept(Kind::current), machine.current);
    EXPECT_EQ(kept(Kind::power), machine.power);
    EXPECT_EQ(kept(Kind::temperature), machine.temperature);
    EXPECT_EQ(kept(Kind::voltage), machine.voltage);
    for (const auto& sensor : sensors) {
        EXPECT_EQ(kLookAlikes.count(sensor.key), 0U) << sensor.key;
    }
}

TEST_P(RealControllerTest, TheHottestOfEachCategoryIsAPart) {
    const auto& machine = GetParam();
    auto mac = simulator::macFromKeyDump(keyDump(machine.name));
    const auto attached = mac.attach();
    const auto snapshot = HardwareSampler([] { return Date{}; }).sample();
    const auto check = [&](SensorCategory category, const std::optional<Hottest>& expected) {
        const SensorReading* hottest = nullptr;
        for (const auto& sensor : snapshot.sensors) {
            if (sensor.category() == category && (!hottest || sensor.celsius > hottest->celsius)) {
                hottest = &sensor;
            }
        }
        ASSERT_EQ(hottest != nullptr, expected.has_value()) << rawValue(category);
        if (hottest) {
            EXPECT_EQ(hottest->key, expected->key);
            EXPECT_NEAR(hottest->celsius, expected->celsius, 0.01) << hottest->key;
            EXPECT_EQ(snapshot.temperature(category), hottest->celsius);
        }
    };
    check(SensorCategory::cpu, machine.cpu);
    check(SensorCategory::gpu, machine.gpu);
    check(SensorCategory::storage, machine.storage);
    // Whatever a part is, it was between the room's temperature and its own limit.
    for (const auto& sensor : snapshot.sensors) {
        EXPECT_GT(sensor.celsius, 10) << sensor.key;
        EXPECT_LT(sensor.celsius, 100) << sensor.key;
    }
    EXPECT_EQ(snapshot.fans.size(), static_cast<std::size_t>(machine.fan));
}

std::string testName(const testing::TestParamInfo<RealMachine>& info) {
    std::string name = info.param.name;
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
}
INSTANTIATE_TEST_SUITE_P(Tables, RealControllerTest, testing::ValuesIn(kMachines), testName);

}  // namespace
}  // namespace ferovane
