#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "live_objects.h"
#include "shim/fv.h"
#include "tests/shim/attached_mac_test.h"

namespace {

using simulator::Property;
using testing::ElementsAre;

constexpr int kDaemonUnreachable = -536870160;

class MachineProbesTest : public tests::AttachedMacTest {
protected:
    MachineProbesTest() : AttachedMacTest(simulator::intelMac(2)) {}
};

std::vector<std::int32_t> powerStatus() {
    const FVPowerStatus status = fv_power_status();
    return {status.speed_limit, status.scheduler_limit, status.available_cpus,
            status.thermal_warning};
}

TEST_F(MachineProbesTest, PowerStatusTakesEachValueByItself) {
    mac.set(Property::kSpeedLimit, 55);
    mac.set(Property::kSchedulerLimit, 90);
    mac.set(Property::kAvailableCpus, 3);
    mac.set(Property::kThermalWarning, 100);
    EXPECT_THAT(powerStatus(), ElementsAre(55, 90, 3, 100));

    mac.setNotANumber(Property::kSpeedLimit);
    EXPECT_THAT(powerStatus(), ElementsAre(-1, 90, 3, 100));
    mac.setAbsent(Property::kSchedulerLimit);
    EXPECT_THAT(powerStatus(), ElementsAre(-1, -1, 3, 100));

    mac.setAbsent(Property::kSpeedLimit);
    mac.setAbsent(Property::kAvailableCpus);
    mac.setAbsent(Property::kThermalWarning);
    EXPECT_THAT(powerStatus(), ElementsAre(-1, -1, -1, -1));
}

TEST_F(MachineProbesTest, AcPower) {
    mac.set(Property::kAcPower, 1);
    EXPECT_EQ(fv_ac_power(), 1);
    mac.set(Property::kAcPower, 0);
    EXPECT_EQ(fv_ac_power(), 0);
    mac.setAbsent(Property::kAcPower);
    EXPECT_EQ(fv_ac_power(), -1);
}

TEST_F(MachineProbesTest, MemoryPressureKnowsThreeLevels) {
    for (const int level : {1, 2, 4}) {
        mac.set(Property::kMemoryPressure, level);
        EXPECT_EQ(fv_memory_pressure(), level);
    }
    for (const int level : {0, 3, 5, -1, 8}) {
        mac.set(Property::kMemoryPressure, level);
        EXPECT_EQ(fv_memory_pressure(), -1) << level;
    }
}

TEST_F(MachineProbesTest, TurboDriverState) {
    mac.set(Property::kExtensionLoaded, 0);
    EXPECT_EQ(fv_turbo_driver_state(), 0);
    mac.set(Property::kExtensionLoaded, 1);
    EXPECT_EQ(fv_turbo_driver_state(), 1);
    mac.set(Property::kExtensionAnswers, 0);
    EXPECT_EQ(fv_turbo_driver_state(), -1);
}

TEST_F(MachineProbesTest, ProcessInformation) {
    mac.set(Property::kProcessors, 12);
    EXPECT_EQ(fv_processor_count(), 12);
    for (const int state : {0, 1, 2, 3}) {
        mac.set(Property::kThermalState, state);
        EXPECT_EQ(fv_thermal_state(), state);
    }
    mac.set(Property::kLowPowerFlag, 1);
    EXPECT_EQ(fv_low_power_mode(), 1);
    mac.set(Property::kLowPowerFlag, 0);
    EXPECT_EQ(fv_low_power_mode(), 0);
    mac.setAbsent(Property::kLowPowerFlag);
    EXPECT_EQ(fv_low_power_mode(), -1);
}

TEST_F(MachineProbesTest, SystemVersionIsMajorTimesHundredPlusMinor) {
    struct Case {
        const char* text;
        int version;
    };
    const Case cases[] = {
        {"12.6", 1206},  {"14.2.1", 1402}, {"11.0", 1100},        {"10.16", 1016}, {"13", 1300},
        {"26.10", 2610}, {"", -1},         {"x.1", -1},           {"12.", -1},     {"12.x", -1},
        {"-1.0", -1},    {"12.100", -1},   {"99999999999.1", -1},
    };
    for (const Case& item : cases) {
        mac.setSystemVersion(item.text);
        EXPECT_EQ(fv_system_version(), item.version) << item.text;
    }
}

TEST_F(MachineProbesTest, PlatformAndBrand) {
    EXPECT_EQ(fv_apple_silicon(), 0);
    mac.setAppleSilicon(true);
    EXPECT_EQ(fv_apple_silicon(), 1);

    mac.setCpuBrand("Intel(R) Core(TM) i9");
    char text[64];
    EXPECT_EQ(fv_cpu_brand(text, sizeof text), 0);
    EXPECT_STREQ(text, "Intel(R) Core(TM) i9");
    EXPECT_EQ(fv_cpu_brand(text, 21), 0);
    EXPECT_EQ(fv_cpu_brand(text, 20), -1);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(fv_cpu_brand(text, 0), -1);
    EXPECT_EQ(fv_cpu_brand(nullptr, 64), -1);
}

// ---- Battery -----------------------------------------------------------------------------------

TEST_F(MachineProbesTest, BatteryReportsChargeAndSignedCurrent) {
    mac.set(Property::kBatteryPresent, 1);
    mac.set(Property::kBatteryPercent, 42);
    mac.set(Property::kBatteryMillivolts, 12000);
    mac.set(Property::kBatteryMilliamps, -1500);
    mac.set(Property::kBatteryCharging, 0);
    mac.set(Property::kBatteryCycles, 321);
    FVBattery battery = fv_battery();
    EXPECT_EQ(battery.percent, 42.0);
    EXPECT_EQ(battery.millivolts, 12000.0);
    EXPECT_EQ(battery.milliamps, -1500.0);
    EXPECT_EQ(battery.charging, 0);
    EXPECT_EQ(battery.cycles, 321);

    mac.set(Property::kBatteryCharging, 1);
    mac.setAbsent(Property::kBatteryMillivolts);
    mac.setAbsent(Property::kBatteryCycles);
    battery = fv_battery();
    EXPECT_EQ(battery.charging, 1);
    EXPECT_TRUE(std::isnan(battery.millivolts));
    EXPECT_EQ(battery.milliamps, -1500.0);
    EXPECT_EQ(battery.cycles, -1);
}

TEST_F(MachineProbesTest, NoBatteryLeavesEverythingUnknown) {
    mac.set(Property::kBatteryPresent, 0);
    const FVBattery battery = fv_battery();
    EXPECT_TRUE(std::isnan(battery.percent));
    EXPECT_TRUE(std::isnan(battery.millivolts));
    EXPECT_TRUE(std::isnan(battery.milliamps));
    EXPECT_EQ(battery.charging, -1);
    EXPECT_EQ(battery.cycles, -1);
}

// ---- Power assertions --------------------------------------------------------------------------

struct SeenAssertions {
    int code = 0;
    std::vector<std::string> lines;  // sorted: the platform gives no order
};

std::string shown(const char* text) {
    return text != nullptr ? text : "(none)";
}

SeenAssertions seenAssertions() {
    SeenAssertions seen;
    seen.code = fv_power_assertions(
        [](void* context, const FVPowerAssertion* assertion) {
            static_cast<SeenAssertions*>(context)->lines.push_back(
                std::to_string(assertion->pid) + " " + shown(assertion->process_name) + " " +
                shown(assertion->type) + " " + shown(assertion->reason) + " " +
                std::to_string(assertion->level) + " " +
                std::to_string(std::llround(assertion->since)));
        },
        &seen);
    std::sort(seen.lines.begin(), seen.lines.end());
    return seen;
}

TEST_F(MachineProbesTest, AssertionsOfAllProcessesAreVisited) {
    mac.releaseAssertions(0);
    mac.hold({.pid = 90,
              .process = "音乐",
              .type = "PreventUserIdleSystemSleep",
              .reason = "playing",
              .level = 255,
              .since = 700000000.0});
    mac.hold({.pid = 90,
              .process = "音乐",
              .type = "PreventUserIdleDisplaySleep",
              .reason = "",
              .level = 0,
              .since = 700000001.0});
    mac.hold({.pid = 123,
              .process = "backupd",
              .type = "PreventSystemSleep",
              .reason = "backup",
              .level = 255,
              .since = 1.0});
    const SeenAssertions seen = seenAssertions();
    EXPECT_EQ(seen.code, 0);
    EXPECT_THAT(seen.lines,
                ElementsAre("123 backupd PreventSystemSleep backup 255 1",
                            "90 音乐 PreventUserIdleDisplaySleep  0 700000001",
                            "90 音乐 PreventUserIdleSystemSleep playing 255 700000000"));
}

TEST_F(MachineProbesTest, NoAssertionsIsNotAFailure) {
    const SeenAssertions none = seenAssertions();
    EXPECT_EQ(none.code, 0);
    EXPECT_TRUE(none.lines.empty());
    EXPECT_EQ(fv_power_assertions(nullptr, nullptr), -1);

    mac.set(Property::kAssertionsAnswer, 0);
    EXPECT_EQ(seenAssertions().code, kDaemonUnreachable);
}

// ---- Bundles -----------------------------------------------------------------------------------

TEST_F(MachineProbesTest, BundleIdentifierMustMatchExactly) {
    const std::filesystem::path root =
        std::filesystem::temp_directory_path() / ("shim-bundle-" + std::to_string(getpid()));
    std::filesystem::create_directories(root / "some.kext/Contents");
    std::filesystem::create_directories(root / "empty.kext/Contents");
    std::ofstream(root / "some.kext/Contents/Info.plist")
        << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>\n"
           "<key>CFBundleIdentifier</key><string>com.vorandel.DisableTurboBoost</string>\n"
           "</dict></plist>\n";
    mac.setRoot(root.string());
    const char* identifier = "com.vorandel.DisableTurboBoost";
    EXPECT_EQ(fv_bundle_has_identifier("/some.kext", identifier), 1);
    EXPECT_EQ(fv_bundle_has_identifier("/some.kext", "com.vorandel.DisableTurboBoos"), 0);
    EXPECT_EQ(fv_bundle_has_identifier("/some.kext", "com.vorandel.disableturboboost"), 0);
    EXPECT_EQ(fv_bundle_has_identifier("/some.kext", "\xFF"), 0);
    EXPECT_EQ(fv_bundle_has_identifier("/empty.kext", identifier), 0);
    EXPECT_EQ(fv_bundle_has_identifier("/missing.kext", identifier), 0);
    EXPECT_EQ(fv_bundle_has_identifier("", identifier), 0);
    EXPECT_EQ(fv_bundle_has_identifier(nullptr, identifier), 0);
    EXPECT_EQ(fv_bundle_has_identifier("/some.kext", nullptr), 0);
    std::filesystem::remove_all(root);
}

// ---- The host's own statistics -----------------------------------------------------------------

TEST(HostStatisticsTest, TicksCountUpWhileBusy) {
    std::uint64_t before[4] = {};
    ASSERT_EQ(fv_cpu_ticks(&before[0], &before[1], &before[2], &before[3]), 0);
    std::uint64_t after[4] = {};
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
    while (std::chrono::steady_clock::now() < deadline) {
    }
    ASSERT_EQ(fv_cpu_ticks(&after[0], &after[1], &after[2], &after[3]), 0);
    EXPECT_GT(after[0] + after[3], before[0] + before[3]);
    EXPECT_LT(after[0], std::uint64_t{1} << 32);
    EXPECT_EQ(fv_cpu_ticks(nullptr, &after[1], &after[2], &after[3]), -1);
}

TEST(HostStatisticsTest, MemoryAddsUp) {
    FVMemory memory{};
    ASSERT_EQ(fv_memory(&memory), 0);
    EXPECT_EQ(memory.page_size, static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE)));
    EXPECT_EQ(memory.total_bytes,
              memory.page_size * static_cast<std::uint64_t>(sysconf(_SC_PHYS_PAGES)));
    EXPECT_GT(memory.internal_pages, 0u);
    EXPECT_LT(
        (memory.internal_pages + memory.wired_pages + memory.compressed_pages) * memory.page_size,
        memory.total_bytes);
    EXPECT_EQ(fv_memory(nullptr), -1);
}

TEST(HostStatisticsTest, GivesTheHostPortBack) {
    const std::int64_t before = simulator::hostPortReferences();
    FVMemory memory{};
    std::uint64_t ticks = 0;
    EXPECT_EQ(fv_memory(&memory), 0);
    EXPECT_EQ(fv_cpu_ticks(&ticks, &ticks, &ticks, &ticks), 0);
    EXPECT_EQ(simulator::hostPortReferences(), before);
}

TEST(HostStatisticsTest, AHostWithoutAMachineIsHonest) {
    EXPECT_EQ(fv_smc_open(), 0u);
    EXPECT_EQ(fv_turbo_driver_state(), -1);
    EXPECT_EQ(fv_ac_power(), -1);
    EXPECT_EQ(fv_apple_silicon(), 0);
    EXPECT_EQ(fv_low_power_mode(), -1);
    EXPECT_GE(fv_processor_count(), 1);
    EXPECT_TRUE(std::isnan(fv_battery().percent));
    EXPECT_THAT(powerStatus(), ElementsAre(-1, -1, -1, -1));
    // The calling thread takes the class or stays as it is; either way it goes on.
    std::thread(fv_use_utility_priority).join();
}

}  // namespace
