#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

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
using testing::UnorderedElementsAre;

// What one value each says, the sampler's tests ask of every probe.
class MachineProbesTest : public tests::AttachedMacTest {
protected:
    MachineProbesTest() : AttachedMacTest(simulator::intelMac(2)) {}
};

TEST_F(MachineProbesTest, SystemVersionIsMajorTimesHundredPlusMinor) {
    const struct {
        const char* text;
        int version;
    } cases[] = {
        {"12.6", 1206},  {"14.2.1", 1402}, {"11.0", 1100},        {"10.16", 1016}, {"13", 1300},
        {"26.10", 2610}, {"", -1},         {"x.1", -1},           {"12.", -1},     {"12.x", -1},
        {"-1.0", -1},    {"12.100", -1},   {"99999999999.1", -1}, {"12.99", 1299}, {"0", 0},
    };
    for (const auto& item : cases) {
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
    EXPECT_EQ(fv_cpu_brand(text, 21), 0);
    EXPECT_STREQ(text, "Intel(R) Core(TM) i9");
    EXPECT_EQ(fv_cpu_brand(text, 20), -1);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(fv_cpu_brand(text, 0), -1);
    EXPECT_EQ(fv_cpu_brand(nullptr, 64), -1);
}

TEST_F(MachineProbesTest, BatteryValuesAreEachTheirOwn) {
    const auto battery = [] {
        const FVBattery b = fv_battery();
        return std::to_string(b.percent) + " " + std::to_string(b.millivolts) + " " +
               std::to_string(b.milliamps) + " " + std::to_string(b.charging) + " " +
               std::to_string(b.cycles);
    };
    mac.set(Property::kBatteryPercent, 42);
    mac.set(Property::kBatteryMillivolts, 12000);
    mac.set(Property::kBatteryMilliamps, -1500);
    mac.set(Property::kBatteryCharging, 0);
    mac.set(Property::kBatteryCycles, 321);
    EXPECT_EQ(battery(), "42.000000 12000.000000 -1500.000000 0 321");
    mac.set(Property::kBatteryCharging, 1);
    mac.set(Property::kBatteryCycles, 0);
    mac.setAbsent(Property::kBatteryMillivolts);
    EXPECT_EQ(battery(), "42.000000 nan -1500.000000 1 0");
    mac.setAbsent(Property::kBatteryCycles);
    EXPECT_EQ(battery(), "42.000000 nan -1500.000000 1 -1");
    mac.set(Property::kBatteryPresent, 0);
    EXPECT_EQ(battery(), "nan nan nan -1 -1");
}

TEST_F(MachineProbesTest, AssertionsOfAllProcessesAreVisited) {
    constexpr int kDaemonUnreachable = -536870160;
    std::vector<std::string> seen;
    const auto visit = [&seen] {
        seen.clear();
        return fv_power_assertions(
            [](void* context, const FVPowerAssertion* assertion) {
                static_cast<std::vector<std::string>*>(context)->push_back(
                    std::to_string(assertion->pid) + " " + assertion->process_name + " " +
                    assertion->type + " " + assertion->reason + " " +
                    std::to_string(assertion->level) + " " +
                    std::to_string(std::llround(assertion->since)));
            },
            &seen);
    };
    mac.releaseAssertions(0);
    EXPECT_EQ(visit(), 0) << "no assertions are no failure";
    EXPECT_THAT(seen, testing::IsEmpty());
    mac.hold({90, "音乐", "PreventUserIdleSystemSleep", "playing", 255, 700000000});
    mac.hold({90, "音乐", "PreventUserIdleDisplaySleep", "", 0, 700000001});
    mac.hold({123, "backupd", "PreventSystemSleep", "backup", 255, 1});
    EXPECT_EQ(visit(), 0);
    EXPECT_THAT(seen,
                UnorderedElementsAre("123 backupd PreventSystemSleep backup 255 1",
                                     "90 音乐 PreventUserIdleDisplaySleep  0 700000001",
                                     "90 音乐 PreventUserIdleSystemSleep playing 255 700000000"));
    EXPECT_EQ(fv_power_assertions(nullptr, nullptr), -1);
    mac.set(Property::kAssertionsAnswer, 0);
    EXPECT_EQ(visit(), kDaemonUnreachable);
}

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
    for (const char* other : {"com.vorandel.DisableTurboBoos", "com.vorandel.disableturboboost",
                              "\xFF", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(fv_bundle_has_identifier("/some.kext", other), 0);
    }
    for (const char* path :
         {"/empty.kext", "/missing.kext", "", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(fv_bundle_has_identifier(path, identifier), 0);
    }
    std::filesystem::remove_all(root);
}

// ---- The host's own statistics, without a machine
// ------------------------------------------------

TEST(HostStatisticsTest, TicksAndMemory) {
    const std::int64_t portReferences = simulator::hostPortReferences();
    std::uint64_t before[4] = {}, after[4] = {};
    ASSERT_EQ(fv_cpu_ticks(&before[0], &before[1], &before[2], &before[3]), 0);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
    while (std::chrono::steady_clock::now() < deadline) {
    }
    ASSERT_EQ(fv_cpu_ticks(&after[0], &after[1], &after[2], &after[3]), 0);
    EXPECT_GT(after[0] + after[3], before[0] + before[3]);
    EXPECT_LT(after[0], std::uint64_t{1} << 32);
    for (int missing = 0; missing < 4; ++missing) {
        const auto out = [&](int place) { return place == missing ? nullptr : &after[place]; };
        EXPECT_EQ(fv_cpu_ticks(out(0), out(1), out(2), out(3)), -1) << missing;
    }

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
    EXPECT_EQ(simulator::hostPortReferences(), portReferences);
}

TEST(HostStatisticsTest, AHostWithoutAMachineIsHonest) {
    EXPECT_EQ(fv_smc_open(), 0u);
    EXPECT_EQ(fv_turbo_driver_state(), -1);
    EXPECT_EQ(fv_ac_power(), -1);
    EXPECT_EQ(fv_apple_silicon(), 0);
    EXPECT_EQ(fv_low_power_mode(), -1);
    EXPECT_GE(fv_processor_count(), 1);
    EXPECT_TRUE(std::isnan(fv_battery().percent));
    EXPECT_EQ(fv_power_status().available_cpus, -1);
    // The calling thread takes the class or stays as it is; either way it goes on.
    std::thread(fv_use_utility_priority).join();
}

}  // namespace
