// What is read of the key tables of real machines (simulator/models, tests/data/controllers).
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

#include "core/hardware/hardware_sampler.h"
#include "simulator/machine/simulated_mac.h"

namespace ferovane {
namespace {

using Kind = HardwareSensorKind;

std::string keyDump(const std::string& name) {
    const std::string kept = FEROVANE_SOURCE "/tests/data/controllers/" + name + ".csv";
    const std::string model = FEROVANE_SOURCE "/simulator/models/" + name + ".csv";
    std::ifstream file(std::filesystem::exists(model) ? model : kept, std::ios::binary);
    EXPECT_TRUE(file.is_open()) << name;
    return {std::istreambuf_iterator<char>(file), {}};
}

struct Hottest {
    std::string_view key = "none";
    double celsius = 0;
};

struct RealMachine {
    std::string name;
    std::ptrdiff_t fan, current, power, temperature, voltage;  // readings of each kind
    Hottest cpu, gpu, storage;
};

// Counted by another program than ours. The Apple Silicon tables hold temperature keys alone;
// graphics keys are named "Tg…" there, which is no category of its own.
const RealMachine kRealMachines[] = {
    {"MacBook10_1", 0, 22, 32, 25, 4, {"TC0F", 59.13}, {}, {"TH0A", 38.38}},
    {"MacBook7_1", 1, 6, 7, 16, 3, {"TC0D", 58.38}, {}, {"TH0P", 30.75}},
    {"MacBookAir7_2", 1, 19, 25, 24, 6, {"TC1C", 54.00}, {}, {"THSP", 31.38}},
    {"MacBookPro10_1", 2, 22, 35, 35, 8, {"TC0F", 97.91}, {"TG1F", 70.44}, {"TH0A", 64.00}},
    {"MacBookPro11_4", 2, 20, 30, 34, 4, {"TC0F", 58.34}, {}, {"TH0A", 40.62}},
    {"MacBookPro13_3", 2, 35, 49, 37, 7, {"TC3C", 67.00}, {"TG0P", 40.81}, {"TH0A", 33.75}},
    {"MacBookPro15_1", 2, 36, 48, 39, 7, {"TC1C", 48.00}, {"TG0P", 36.50}, {"TH0X", 28.44}},
    {"MacBookPro16_1", 2, 36, 50, 44, 7, {"TC2C", 49.00}, {"TG0P", 37.19}, {"TH0X", 36.04}},
    {"MacBookPro8_1", 1, 7, 11, 19, 4, {"TCGC", 71.00}, {}, {}},
    {"MacPro7_1", 4, 26, 50, 99, 8, {"TCXc", 36.72}, {}, {"TH0P", 30.12}},
    {"Macmini7_1", 1, 13, 24, 20, 7, {"TC0F", 44.53}, {}, {}},
    {"iMac11_2", 3, 7, 10, 29, 6, {"TC1C", 47.00}, {"TG0p", 44.00}, {}},
    {"iMac18_3", 1, 21, 39, 48, 6, {"TC3c", 56.00}, {"TG1P", 52.00}, {"TH1A", 53.00}},
    {"apple-m1-pro-temperatures", 0, 0, 0, 178, 0, {"TCMz", 75.43}, {}, {"TH0x", 44.46}},
    {"apple-m2-temperatures", 0, 0, 0, 102, 0, {"TCMz", 40.42}, {}, {"TH0a", 32.16}},
    {"apple-m3-max-temperatures", 0, 0, 0, 202, 0, {"TCMz", 72.78}, {}, {"TH0a", 22.78}},
    {"apple-m4-pro-temperatures", 0, 0, 0, 210, 0, {"TCMz", 80.39}, {}, {"TH0a", 38.39}},
    {"apple-m4-temperatures", 0, 0, 0, 168, 0, {"TCMz", 55.83}, {}, {"TH0A", 21.32}},
    {"apple-m5-pro-temperatures", 0, 0, 0, 220, 0, {"TCMb", 62.59}, {}, {"TH0b", 29.70}},
};

TEST(RealControllersTest, MeasurementsOnly) {
    for (const auto& machine : kRealMachines) {
        SCOPED_TRACE(machine.name);
        auto mac = simulator::macFromKeyDump(keyDump(machine.name));
        const auto attached = mac.attach();
        const auto snapshot = HardwareSampler([] { return Date{}; }).sample();
        const auto readings = [&](Kind kind) {
            return std::ranges::count(*snapshot.additionalSensors, kind,
                                      &HardwareSensorReading::kind);
        };
        EXPECT_EQ(readings(Kind::fan), machine.fan);
        EXPECT_EQ(readings(Kind::current), machine.current);
        EXPECT_EQ(readings(Kind::power), machine.power);
        EXPECT_EQ(readings(Kind::voltage), machine.voltage);
        EXPECT_EQ(std::ssize(snapshot.sensors), machine.temperature);
        EXPECT_EQ(std::ssize(snapshot.fans), machine.fan);
        // Whatever a part is, it was between the room's temperature and its own limit.
        for (const auto& sensor : snapshot.sensors) {
            EXPECT_TRUE(sensor.celsius > 10 && sensor.celsius < 100) << sensor.key;
        }
        for (const auto& [category, expected] :
             {std::pair{SensorCategory::cpu, machine.cpu},
              std::pair{SensorCategory::gpu, machine.gpu},
              std::pair{SensorCategory::storage, machine.storage}}) {
            Hottest hottest;
            for (const auto& sensor : snapshot.sensors) {
                if (sensor.category() == category && sensor.celsius > hottest.celsius) {
                    hottest = {sensor.key, sensor.celsius};
                }
            }
            EXPECT_EQ(hottest.key, expected.key);
            EXPECT_NEAR(hottest.celsius, expected.celsius, 0.01) << hottest.key;
        }
    }
}

}  // namespace
}  // namespace ferovane
