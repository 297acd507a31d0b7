// What is read of the key tables of real machines (simulator/models, tests/data/controllers).
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "core/hardware/hardware_sampler.h"
#include "core/model/number_text.h"
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

std::string hottest(const Snapshot& snapshot, SensorCategory category) {
    const SensorReading* found = nullptr;
    for (const auto& sensor : snapshot.sensors) {
        if (sensor.category() == category && (!found || sensor.celsius > found->celsius)) {
            found = &sensor;
        }
    }
    return found == nullptr ? ", none" : ", " + found->key + " " + fixed2(found->celsius);
}

std::string summary(const Snapshot& snapshot) {
    std::string text = std::to_string(snapshot.fans.size());
    for (const Kind kind : {Kind::fan, Kind::current, Kind::power, Kind::voltage}) {
        text += " " + std::to_string(std::ranges::count(*snapshot.additionalSensors, kind,
                                                        &HardwareSensorReading::kind));
    }
    return text + " " + std::to_string(snapshot.sensors.size()) +
           hottest(snapshot, SensorCategory::cpu) + hottest(snapshot, SensorCategory::gpu) +
           hottest(snapshot, SensorCategory::storage);
}

// Fans; readings of speeds, currents, powers, voltages and temperatures; the hottest sensors of
// processor, graphics and storage. Counted by another program than ours. The Apple Silicon tables
// hold temperature keys alone; graphics keys are named "Tg…" there, which is no category of its
// own.
const struct {
    std::string name, summary;
} kRealMachines[] = {
    {"MacBook10_1", "0 0 22 32 4 25, TC0F 59.13, none, TH0A 38.38"},
    {"MacBook7_1", "1 1 6 7 3 16, TC0D 58.38, none, TH0P 30.75"},
    {"MacBookAir7_2", "1 1 19 25 6 24, TC1C 54.00, none, THSP 31.38"},
    {"MacBookPro10_1", "2 2 22 35 8 35, TC0F 97.91, TG1F 70.44, TH0A 64.00"},
    {"MacBookPro11_4", "2 2 20 30 4 34, TC0F 58.34, none, TH0A 40.62"},
    {"MacBookPro13_3", "2 2 35 49 7 37, TC3C 67.00, TG0P 40.81, TH0A 33.75"},
    {"MacBookPro15_1", "2 2 36 48 7 39, TC1C 48.00, TG0P 36.50, TH0X 28.44"},
    {"MacBookPro16_1", "2 2 36 50 7 44, TC2C 49.00, TG0P 37.19, TH0X 36.04"},
    {"MacBookPro8_1", "1 1 7 11 4 19, TCGC 71.00, none, none"},
    {"MacPro7_1", "4 4 26 50 8 99, TCXc 36.72, none, TH0P 30.12"},
    {"Macmini7_1", "1 1 13 24 7 20, TC0F 44.53, none, none"},
    {"iMac11_2", "3 3 7 10 6 29, TC1C 47.00, TG0p 44.00, none"},
    {"iMac18_3", "1 1 21 39 6 48, TC3c 56.00, TG1P 52.00, TH1A 53.00"},
    {"apple-m1-pro-temperatures", "0 0 0 0 0 178, TCMz 75.43, none, TH0x 44.46"},
    {"apple-m2-temperatures", "0 0 0 0 0 102, TCMz 40.42, none, TH0a 32.16"},
    {"apple-m3-max-temperatures", "0 0 0 0 0 202, TCMz 72.78, none, TH0a 22.78"},
    {"apple-m4-pro-temperatures", "0 0 0 0 0 210, TCMz 80.39, none, TH0a 38.39"},
    {"apple-m4-temperatures", "0 0 0 0 0 168, TCMz 55.83, none, TH0A 21.32"},
    {"apple-m5-pro-temperatures", "0 0 0 0 0 220, TCMb 62.59, none, TH0b 29.70"},
};

TEST(RealControllersTest, MeasurementsOnly) {
    for (const auto& machine : kRealMachines) {
        auto mac = simulator::macFromKeyDump(keyDump(machine.name));
        const auto attached = mac.attach();
        const auto snapshot = HardwareSampler([] { return Date{}; }).sample();
        EXPECT_EQ(summary(snapshot), machine.summary) << machine.name;
        // Whatever a part is, it was between the room's temperature and its own limit.
        for (const auto& sensor : snapshot.sensors) {
            EXPECT_TRUE(sensor.celsius > 10 && sensor.celsius < 100) << sensor.key;
        }
    }
}

}  // namespace
}  // namespace ferovane
