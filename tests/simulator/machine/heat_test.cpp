// Heat and fans as physics: steady states, what cooling and load do, how fans get to speed.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "shim/fv.h"
#include "simulator/machine/four_characters.h"
#include "simulator/machine/key_dump.h"
#include "simulator/machine/model.h"
#include "simulator/machine/simulated_mac.h"

namespace {

using namespace simulator;

constexpr double kHour = 3600;
constexpr double kThrottleRipple = 0.05;  // K, of a processor that keeps itself at 100 °C

// A machine whose fans somebody holds at a speed.
SimulatedMac heldAt(double rpm) {
    SimulatedMac mac = intelMac(2);
    for (int fan = 0; fan < 2; ++fan) {
        mac.otherTakesFan(fan);
        mac.otherWrites(unpacked(fanKey(static_cast<std::size_t>(fan), "Tg")), rpm);
    }
    return mac;
}

class ModelTest : public testing::TestWithParam<const char*> {};

// The models that start in the state of their dump.
class ModelAsDumpedTest : public ModelTest {};

TEST_P(ModelAsDumpedTest, ShowsItsDumpToTheByte) {
    const BuiltInModel& model = builtInModelNamed(GetParam());
    SimulatedMac mac = builtInMac(GetParam());
    std::size_t compared = 0;
    for (const KeyDefinition& key : keysOf(model)) {
        const std::string name = unpacked(key.code);
        // Adapter and battery keys show the machine's present source; "#KEY" what can be listed.
        const bool ofItsOwn =
            name == "#KEY" || name == "B0AC" || name == "PDTR" || name == "ID0R" || name == "VD0R";
        if (key.readResult != 0 || ofItsOwn) {
            continue;
        }
        std::vector<std::uint8_t> dumped = key.bytes;
        dumped.resize(std::min<std::size_t>(dumped.size(), 32));
        EXPECT_EQ(mac.bytes(name), dumped) << name;
        ++compared;
    }
    EXPECT_GT(compared, 200U);
}

TEST_P(ModelTest, StaysPlausibleFromFreezingRoomToFullLoad) {
    SimulatedMac mac = builtInMac(GetParam());
    const double atRest = mac.dieTemperature();
    mac.set(Property::kLoad, 100);
    mac.set(Property::kGraphicsLoad, 100);
    mac.settle();
    EXPECT_GT(mac.dieTemperature(), atRest);
    EXPECT_LT(mac.dieTemperature(), 106) << "it throttles";
    mac.set(Property::kLoad, 0);
    mac.set(Property::kGraphicsLoad, 0);
    mac.set(Property::kAmbient, 0);
    mac.settle();
    EXPECT_GT(mac.dieTemperature(), 0);
    EXPECT_LT(mac.dieTemperature(), atRest);
    for (int fan = 0; fan < mac.fanCount(); ++fan) {
        EXPECT_LE(mac.fanTarget(fan), mac.fanMinimum(fan) * 1.25) << "back to rest";
    }
}

TEST_P(ModelTest, NoLiveSensorLeavesTheRangeOfRealMachines) {
    SimulatedMac mac = builtInMac(GetParam());
    mac.set(Property::kLoad, 0);
    mac.settle();
    std::map<std::string, double> cool;
    for (const KeyDefinition& key : keysOf(builtInModelNamed(GetParam()))) {
        const std::string name = unpacked(key.code);
        if (name.front() == 'T' && mac.number(name)) {
            cool[name] = *mac.number(name);
        }
    }
    mac.set(Property::kLoad, 100);
    mac.settle();
    int live = 0;
    for (const auto& [name, before] : cool) {
        const double now = *mac.number(name);
        if (now != before) {
            EXPECT_GT(now, 5) << name;
            EXPECT_LT(now, 115) << name;
            EXPECT_GT(now, before) << name;
            ++live;
        }
    }
    EXPECT_GT(live, 20);
}

std::string testName(const testing::TestParamInfo<const char*>& model) {
    std::string name = model.param;
    std::replace(name.begin(), name.end(), ',', '_');
    return name;
}

INSTANTIATE_TEST_SUITE_P(Models, ModelAsDumpedTest,
                         testing::Values("MacBookPro11,4", "MacBookPro16,1", "iMac18,3",
                                         "MacPro7,1", "MacBook10,1", "M1Pro", "M5Pro"),
                         testName);
INSTANTIATE_TEST_SUITE_P(Models, ModelTest,
                         testing::Values("MacBookPro11,4", "MacBookPro16,1", "iMac18,3",
                                         "MacPro7,1", "MacBook10,1", "M1Pro", "M4Max", "M5Pro"),
                         testName);

TEST(HeatTest, RestIsASteadyState) {
    SimulatedMac mac = builtInMac("MacBookPro11,4");
    const double die = mac.dieTemperature();
    mac.advance(4 * kHour);
    EXPECT_NEAR(mac.dieTemperature(), die, 0.1);
    EXPECT_EQ(mac.fanTarget(0), 2160);
    EXPECT_NEAR(mac.fanRpm(0), 2157, 1);
}

TEST(HeatTest, MoreAirCoolsAndHotterLoadHeatsEverySensor) {
    const auto settledAt = [](double rpm, double load) {
        SimulatedMac mac = heldAt(rpm);
        mac.set(Property::kLoad, load);
        mac.settle();
        std::vector<double> readings = {mac.dieTemperature(), mac.heatSinkTemperature()};
        for (const char* key : {"TC0C", "TC0P", "TG0P", "TH0A", "TB0T"}) {
            readings.push_back(*mac.number(key));
        }
        return readings;
    };
    for (double load = 0; load <= 100; load += 25) {
        for (double rpm = 1000; rpm <= 5000; rpm += 1000) {
            const auto here = settledAt(rpm, load);
            const auto cooled = settledAt(rpm + 800, load);
            const auto heated = settledAt(rpm, load + 10);
            for (std::size_t i = 0; i < here.size(); ++i) {
                EXPECT_LE(cooled[i], here[i] + kThrottleRipple)
                    << i << " at " << rpm << " rpm, " << load << " %";
                EXPECT_GE(heated[i], here[i] - kThrottleRipple)
                    << i << " at " << rpm << " rpm, " << load << " %";
            }
        }
    }
}

TEST(HeatTest, NothingGetsColderThanTheRoomAndNothingOvershoots) {
    SimulatedMac mac = heldAt(5000);
    mac.set(Property::kLoad, 100);
    mac.settle();
    const double steady = mac.dieTemperature();
    mac.set(Property::kLoad, 0);
    mac.settle();
    const double cold = mac.dieTemperature();
    EXPECT_GT(cold, *mac.value(Property::kAmbient));
    mac.set(Property::kLoad, 100);
    double last = mac.dieTemperature();
    for (int second = 0; second < 1200; ++second) {
        mac.advance(1);
        EXPECT_GE(mac.dieTemperature(), last - 1e-6);
        EXPECT_LE(mac.dieTemperature(), steady + 1e-3);
        last = mac.dieTemperature();
    }
}

TEST(HeatTest, DieIsQuickerThanTheHeatSinkAndTheBatteryIsLast) {
    SimulatedMac mac = intelMac(2);
    const auto rise = [&mac](const char* key, double rest) { return *mac.number(key) - rest; };
    const double die = mac.dieTemperature();
    const double sink = mac.heatSinkTemperature();
    mac.set(Property::kLoad, 100);
    mac.advance(3);
    EXPECT_GT(mac.dieTemperature() - die, 3 * (mac.heatSinkTemperature() - sink));
    EXPECT_GT(mac.heatSinkTemperature() - sink, 1);
    EXPECT_LT(rise("TB0T", 33), 0.1);
    mac.advance(kHour);
    EXPECT_GT(rise("TB0T", 33), 1);
}

TEST(HeatTest, PassesTheSameInOneStepAsInMany) {
    SimulatedMac once = intelMac(2);
    SimulatedMac often = intelMac(2);
    for (SimulatedMac* mac : {&once, &often}) {
        mac->set(Property::kLoad, 80);
    }
    once.advance(600);
    for (int i = 0; i < 1000; ++i) {
        often.advance(0.6);
    }
    EXPECT_NEAR(once.dieTemperature(), often.dieTemperature(), 0.5);
    EXPECT_NEAR(once.fanRpm(0), often.fanRpm(0), 30);
}

TEST(HeatTest, FansTakeSecondsToSpeedUpAndOneToStop) {
    SimulatedMac mac = builtInMac("M1Pro");
    mac.otherWrites("F0Md", 1);
    mac.otherWrites("F0Tg", 0);
    mac.advance(3);
    EXPECT_LT(mac.fanRpm(0), 50);
    mac.otherWrites("F0Tg", 5000);
    mac.advance(1);
    EXPECT_GT(mac.fanRpm(0), 800);
    EXPECT_LT(mac.fanRpm(0), 2000);
    mac.advance(5);
    EXPECT_GT(mac.fanRpm(0), 4600);
    EXPECT_LT(mac.fanRpm(0), 5000) << "a fan of this kind stays somewhat below a high target";
    mac.otherWrites("F0Tg", 0);
    mac.advance(1.5);
    EXPECT_LT(mac.fanRpm(0), 700);
}

TEST(HeatTest, TheControllerSpeedsItsFansUpWithTheHeatAndWritesTheTargetItself) {
    SimulatedMac mac = intelMac(2);
    mac.set(Property::kLoad, 100);
    mac.advance(300);
    EXPECT_GT(mac.fanRpm(0), 3000);
    EXPECT_EQ(mac.number("F0Tg"), static_cast<float>(mac.fanTarget(0)));
    EXPECT_GT(mac.fanTarget(0), 3000);
    EXPECT_EQ(mac.writes(), "") << "nobody wrote";
    mac.set(Property::kLoad, 0);
    mac.advance(kHour);
    EXPECT_EQ(mac.fanTarget(0), 2000);
}

TEST(HeatTest, FansOfALaptopAtRestStopAndStartAgain) {
    SimulatedMac mac = builtInMac("M4Max");
    EXPECT_EQ(mac.fanTarget(0), 0);
    EXPECT_EQ(mac.fanRpm(0), 0);
    mac.set(Property::kLoad, 60);
    mac.advance(120);
    EXPECT_GE(mac.fanTarget(0), 2317);
    EXPECT_GT(mac.fanRpm(1), 2200);
    mac.set(Property::kLoad, 0);
    mac.advance(kHour);
    EXPECT_EQ(mac.fanTarget(0), 0);
}

TEST(HeatTest, AProcessorThatCannotBeCooledSlowsDown) {
    SimulatedMac mac = heldAt(0);
    mac.set(Property::kLoad, 100);
    mac.advance(600);
    EXPECT_GT(mac.dieTemperature(), 97);
    EXPECT_LT(mac.dieTemperature(), 103);
    const auto attached = mac.attach();
    EXPECT_LT(fv_power_status().speed_limit, 95);
    mac.set(Property::kSpeedLimit, 40);
    EXPECT_EQ(fv_power_status().speed_limit, 40) << "a fixed limit is a fixed limit";
}

TEST(HeatTest, PowerKeysFollowTheLoadAndTheSource) {
    SimulatedMac mac = builtInMac("MacBookPro11,4");
    const double atRest = *mac.number("PSTR");
    EXPECT_GT(*mac.number("PDTR"), 10);
    EXPECT_GT(*mac.number("VD0R"), 19);
    mac.set(Property::kLoad, 100);
    mac.advance(1);
    const double busy = *mac.number("PSTR");
    EXPECT_GT(busy, atRest + 20);
    EXPECT_GT(*mac.number("PC0R"), 30);
    mac.set(Property::kAcPower, 0);
    for (const char* adapter : {"PDTR", "VD0R", "ID0R"}) {
        EXPECT_EQ(mac.number(adapter), 0) << adapter;
    }
    EXPECT_NEAR(*mac.number("PPBR"), busy, 5);
    EXPECT_LT(*mac.number("B0AC"), -2000);
}

TEST(HeatTest, SpeedMultipliesHeatAndNotTheClocks) {
    SimulatedMac slow = intelMac(2);
    SimulatedMac fast = intelMac(2);
    for (SimulatedMac* mac : {&slow, &fast}) {
        mac->set(Property::kLoad, 70);
    }
    fast.set(Property::kSpeed, 20);
    slow.advance(200);
    fast.advance(10);
    EXPECT_NEAR(fast.dieTemperature(), slow.dieTemperature(), 0.2);
    EXPECT_EQ(fast.now(), 10);
}

}  // namespace
