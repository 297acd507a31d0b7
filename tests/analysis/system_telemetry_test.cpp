#include "core/analysis/system_telemetry.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "core/analysis/system_telemetry_readings.h"
#include "core/model/json_codec.h"
#include "simulator/machine/simulated_mac.h"
#include "tests/support/dice.h"

namespace ferovane {
namespace {

using simulator::Property;
using testing::kNaN;
constexpr double kGiB = 1024.0 * 1024 * 1024;
constexpr FVBattery kNoBattery{kNaN, kNaN, kNaN, -1, -1};

TEST(SystemTelemetryTest, ComputesTheBatteryPowerOfCredibleReadingsOnly) {
    const struct {
        std::optional<double> millivolts, milliamps, watts;
    } cases[] = {
        {12000, -1500, -18.0},
        {12000, 1500, 18.0},
        {1000, 1, 0.001},
        {30000, 29999, 899.97},
        {30000, -29999, -899.97},
        {999, 1, {}},
        {30001, 1, {}},
        {12000, 30000, {}},
        {12000, -30000, {}},
        {kNaN, 1, {}},
        {12000, kNaN, {}},
        {12000, 18446744073709550116.0, {}},  // a negative current that lost its sign
        {{}, 1, {}},
        {12000, {}, {}},
        {12000, 0, 0.0},
    };
    for (const auto& [millivolts, milliamps, watts] : cases) {
        EXPECT_EQ(SystemTelemetry::watts(millivolts, milliamps), watts)
            << millivolts.value_or(-1) << " mV, " << milliamps.value_or(-1) << " mA";
    }
}

TEST(SystemTelemetryTest, CountsMemoryAsUsersKnowIt) {
    const FVMemory memory{16384,  400000, 100000,
                          150000, 74288,  static_cast<std::uint64_t>(16 * kGiB)};
    const auto telemetry = telemetryFrom(Date{1}, kNoBattery, memory);
    EXPECT_EQ(telemetry.memoryUsed, 8 * kGiB);
    EXPECT_EQ(telemetry.memoryTotal, 16 * kGiB);
    EXPECT_EQ(telemetry.memoryPercent(), 50.0);

    FVMemory inconsistent = memory;
    inconsistent.purgeable_pages = 400001;
    EXPECT_EQ(telemetryFrom(Date{1}, kNoBattery, inconsistent).memoryUsed,
              (150000 + 74288) * 16384.0);

    const auto uncounted = telemetryFrom(Date{1}, kNoBattery, FVMemory{0, 0, 0, 0, 0, 1 << 30});
    EXPECT_EQ(uncounted.memoryUsed, std::nullopt);
    EXPECT_EQ(uncounted.memoryTotal, kGiB) << "known, whatever the page counts are";

    const auto silent = telemetryFrom(Date{1}, kNoBattery, std::nullopt);
    EXPECT_EQ(silent, (SystemTelemetry{Date{1}, {}, {}, {}, {}, {}, 0}));
    EXPECT_EQ(silent.memoryPercent(), std::nullopt);
    EXPECT_EQ((SystemTelemetry{Date{1}, {}, {}, {}, {}, 0, 0}).memoryPercent(), std::nullopt);
}

TEST(SystemTelemetryTest, ReadsThisMachine) {
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
    telemetry.date = Date{10};
    telemetry.memoryUsed = 8 * kGiB;
    telemetry.memoryTotal = 16 * kGiB;
    const std::string text =
        R"({"date":10,"batteryPercent":64,"batteryWatts":-22.8,"charging":false,"cycles":321,)"
        R"("memoryUsed":8589934592,"memoryTotal":17179869184})";
    EXPECT_EQ(encodeJson(telemetry), text);
    EXPECT_EQ(decodeJson<SystemTelemetry>(text), telemetry);
    EXPECT_EQ(telemetry.id(), telemetry.date);

    mac.set(Property::kBatteryPresent, 0);
    auto desktop = SystemTelemetry::read();
    desktop.date = Date{10};
    desktop.memoryUsed.reset();
    desktop.memoryTotal = 16 * kGiB;
    EXPECT_EQ(encodeJson(desktop), R"({"date":10,"memoryTotal":17179869184})");
    EXPECT_EQ(decodeJson<SystemTelemetry>(encodeJson(desktop)), desktop);
}

}  // namespace
}  // namespace ferovane
