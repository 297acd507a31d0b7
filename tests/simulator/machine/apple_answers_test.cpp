// What Apple's interfaces say about the world of a machine.
#include <IOKit/IOKitLib.h>
#include <IOKit/ps/IOPowerSources.h>
#include <IOKit/pwr_mgt/IOPMLib.h>
#include <gtest/gtest.h>

#include <cmath>

#include "shim/fv.h"
#include "simulator/apple/live_objects.h"
#include "simulator/machine/simulated_mac.h"

namespace {

using namespace simulator;

// Every test gives back what Apple's interfaces created for it.
class AppleAnswersTest : public testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(liveObjects(), objectsBefore_); }

    std::int64_t objectsBefore_ = liveObjects();
    SimulatedMac mac_ = intelMac(1);
    Attachment attached_{mac_.machine()};
};

TEST_F(AppleAnswersTest, CpuLimitsMayEachBeAbsentOrNoNumber) {
    FVPowerStatus status = fv_power_status();
    EXPECT_EQ(status.speed_limit, 100);
    EXPECT_EQ(status.thermal_warning, -1) << "never published";
    mac_.setNotANumber(Property::kSpeedLimit);
    mac_.setAbsent(Property::kSchedulerLimit);
    mac_.set(Property::kThermalWarning, 5);
    status = fv_power_status();
    EXPECT_EQ(status.speed_limit, -1);
    EXPECT_EQ(status.scheduler_limit, -1);
    EXPECT_EQ(status.available_cpus, 8);
    EXPECT_EQ(status.thermal_warning, 5);
    mac_.setAbsent(Property::kSpeedLimit);
    mac_.setAbsent(Property::kAvailableCpus);
    CFDictionaryRef untouched = nullptr;
    EXPECT_EQ(IOPMCopyCPUPowerStatus(&untouched), kIOReturnNotFound);
    EXPECT_EQ(untouched, nullptr);
}

TEST_F(AppleAnswersTest, PowerSources) {
    const auto onMains = [this](double power) {
        mac_.set(Property::kAcPower, power);
        return fv_ac_power();
    };
    EXPECT_EQ(onMains(1), 1);
    EXPECT_EQ(onMains(0), 0);
    EXPECT_EQ(onMains(2), 0) << "a UPS";
    mac_.setNotANumber(Property::kAcPower);
    EXPECT_EQ(fv_ac_power(), -1) << "a source without a type";
    mac_.setAbsent(Property::kAcPower);
    EXPECT_EQ(fv_ac_power(), -1) << "no answer";
    CFTypeRef blob = IOPSCopyPowerSourcesInfo();
    EXPECT_EQ(blob, nullptr);
}

TEST_F(AppleAnswersTest, BatteryBesideAUps) {
    mac_.set(Property::kAcPower, 2);
    mac_.set(Property::kBatteryPercent, 45);
    mac_.set(Property::kBatteryMillivolts, 11358);
    mac_.set(Property::kBatteryMilliamps, -612);
    mac_.set(Property::kBatteryCharging, 0);
    mac_.set(Property::kBatteryCycles, 195);
    FVBattery battery = fv_battery();
    EXPECT_EQ(battery.percent, 45);
    EXPECT_EQ(battery.millivolts, 11358);
    EXPECT_EQ(battery.milliamps, -612);
    EXPECT_EQ(battery.charging, 0);
    EXPECT_EQ(battery.cycles, 195);
    mac_.setAbsent(Property::kBatteryMillivolts);
    mac_.setNotANumber(Property::kBatteryMilliamps);
    mac_.setAbsent(Property::kBatteryCycles);
    battery = fv_battery();
    EXPECT_TRUE(std::isnan(battery.millivolts));
    EXPECT_TRUE(std::isnan(battery.milliamps));
    EXPECT_EQ(battery.cycles, -1);
    mac_.set(Property::kBatteryPresent, 0);
    battery = fv_battery();
    EXPECT_TRUE(std::isnan(battery.percent));
    EXPECT_EQ(battery.charging, -1);
    EXPECT_EQ(mac_.ports(), PortCounts{});
}

TEST_F(AppleAnswersTest, TheBatteryIsEmptiedByWhatTheMachineDraws) {
    mac_.set(Property::kAcPower, 0);
    mac_.set(Property::kBatteryPercent, 50);
    const double before = fv_battery().percent;
    mac_.set(Property::kLoad, 100);
    mac_.advance(1800);
    EXPECT_LT(fv_battery().milliamps, -2000);
    EXPECT_LT(fv_battery().percent, before - 10);
    mac_.set(Property::kAcPower, 1);
    EXPECT_EQ(fv_battery().charging, 1);
    mac_.advance(4 * 3600);
    EXPECT_EQ(fv_battery().percent, 100);
    EXPECT_EQ(fv_battery().charging, 0);
}

struct Seen {
    int count = 0;
    std::string text;
};

void see(void* context, const FVPowerAssertion* assertion) {
    auto* seen = static_cast<Seen*>(context);
    ++seen->count;
    seen->text += std::to_string(assertion->pid) + " " + assertion->type + " " + assertion->reason +
                  " " + std::to_string(assertion->level) + ";";
}

TEST_F(AppleAnswersTest, AssertionsByProcess) {
    Seen seen;
    EXPECT_EQ(fv_power_assertions(see, &seen), 0) << "success with nothing to tell";
    EXPECT_EQ(seen.count, 0);
    mac_.hold({.pid = 7,
               .process = "sharingd",
               .type = "PreventUserIdleSystemSleep",
               .reason = "Handoff"});
    mac_.hold({.pid = 7, .process = "sharingd", .type = ""});
    mac_.hold({.pid = 9, .type = "PreventSystemSleep", .reason = "", .level = 0});
    EXPECT_EQ(fv_power_assertions(see, &seen), 0);
    EXPECT_EQ(seen.count, 2) << seen.text;
    EXPECT_NE(seen.text.find("7 PreventUserIdleSystemSleep Handoff 255;"), std::string::npos);
    mac_.releaseAssertions(7);
    mac_.set(Property::kAssertionsAnswer, 0);
    EXPECT_EQ(fv_power_assertions(see, &seen), kIOReturnNotFound);
}

TEST_F(AppleAnswersTest, ExtensionsAndTheRest) {
    EXPECT_EQ(fv_turbo_driver_state(), 0);
    mac_.set(Property::kExtensionLoaded, 1);
    EXPECT_EQ(fv_turbo_driver_state(), 1);
    mac_.set(Property::kExtensionAnswers, 0);
    EXPECT_EQ(fv_turbo_driver_state(), -1);
    mac_.set(Property::kMemoryPressure, 4);
    EXPECT_EQ(fv_memory_pressure(), 4);
    mac_.set(Property::kThermalState, 2);
    EXPECT_EQ(fv_thermal_state(), 2);
    mac_.setSystemVersion("12.6.1");
    EXPECT_EQ(fv_system_version(), 1206);
    mac_.set(Property::kProcessors, 16);
    EXPECT_EQ(fv_processor_count(), 16);
    EXPECT_EQ(fv_apple_silicon(), 0);
    mac_.setAppleSilicon(true);
    EXPECT_EQ(fv_apple_silicon(), 1);
}

TEST(NoMachineTest, NothingIsSimulatedWithoutOne) {
    CFDictionaryRef status = nullptr;
    std::uint32_t level = 0;
    EXPECT_EQ(IOPMCopyCPUPowerStatus(&status), kIOReturnNotFound);
    EXPECT_EQ(IOPMGetThermalWarningLevel(&level), kIOReturnNotFound);
    EXPECT_EQ(fv_ac_power(), -1);
    EXPECT_EQ(fv_turbo_driver_state(), -1);
    EXPECT_TRUE(std::isnan(fv_battery().percent));
}

}  // namespace
