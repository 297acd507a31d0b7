#include "core/hardware/hardware_sampler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "core/hardware/sensor_inventory.h"
#include "simulator/machine/simulated_mac.h"

namespace ferovane {
namespace {

using simulator::Property;

constexpr Date kDate{754567200.25};

HardwareSampler samplerAt(Date date) {
    return HardwareSampler([date] { return date; });
}

std::optional<double> celsius(const Snapshot& snapshot, std::string_view key) {
    const auto found = std::find_if(snapshot.sensors.begin(), snapshot.sensors.end(),
                                    [&](const SensorReading& s) { return s.key == key; });
    return found == snapshot.sensors.end() ? std::nullopt : std::optional(found->celsius);
}

const HardwareSensorReading* additional(const Snapshot& snapshot, std::string_view key) {
    const auto& others = *snapshot.additionalSensors;
    const auto found = std::find_if(others.begin(), others.end(),
                                    [&](const HardwareSensorReading& s) { return s.key == key; });
    return found == others.end() ? nullptr : &*found;
}

std::size_t readings(const Snapshot& snapshot) {
    return snapshot.sensors.size() + snapshot.additionalSensors->size();
}

// Sensor keys that are none of the machine's own, until it has `total` keys altogether.
void addSensorsUntil(simulator::SimulatedMac& mac, std::size_t total) {
    constexpr std::string_view kPlaces = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";
    for (std::size_t index = 0; mac.keyCount() < total; ++index) {
        const std::string key{'T', static_cast<char>('0' + index / 36 / 36),
                              kPlaces[index / 36 % 36], kPlaces[index % 36]};
        mac.setKey(key, "sp78", {static_cast<std::uint8_t>(20 + index % 60), 0x80});
    }
}

std::uint64_t keysWorthReading() {
    const std::uint32_t connection = fv_smc_open();
    std::uint64_t count = 0;
    char key[FV_SMC_KEY_TEXT_SIZE];
    for (std::uint32_t index = 0; fv_smc_key_at_index(connection, index, key) == 0; ++index) {
        count += static_cast<std::uint64_t>(SensorInventory::mayBeSensor(key));
    }
    fv_smc_close(connection);
    return count;
}

TEST(HardwareSamplerTest, ProcessorUseNeedsAPreviousSample) {
    auto mac = simulator::intelMac(2);
    const auto attached = mac.attach();
    auto sampler = samplerAt(kDate);
    const auto first = sampler.sample();
    EXPECT_EQ(first.cpuUsage, std::nullopt);
    EXPECT_EQ(first.date, kDate);
    const auto second = sampler.sample();
    ASSERT_TRUE(second.cpuUsage);
    EXPECT_GE(*second.cpuUsage, 0);
    EXPECT_LE(*second.cpuUsage, 100);
    sampler.reset();
    EXPECT_EQ(sampler.sample().cpuUsage, std::nullopt);
}

// The promise on a machine of any size: two calls per known sensor, and those of the fan list.
TEST(HardwareSamplerTest, ExactCallsPerSample) {
    constexpr int kFans = 2;
    // The count; the mask, which this machine lacks and denies at the first call; five keys a fan.
    constexpr std::uint64_t kFanListCalls = 2 + 1 + kFans * 5 * 2;
    for (const std::size_t keys : {300U, 10000U}) {
        auto mac = simulator::intelMac(kFans);
        addSensorsUntil(mac, keys);
        const auto attached = mac.attach();
        const std::uint64_t candidates = keysWorthReading();
        auto sampler = samplerAt(kDate);
        mac.clearCalls();
        const auto first = sampler.sample();
        EXPECT_GE(readings(first), keys - 40);
        const std::uint64_t perSample = 2 * readings(first) + kFanListCalls;
        EXPECT_EQ(mac.calls().names, keys);
        EXPECT_EQ(mac.calls().total(), 2 + keys + 2 * candidates + perSample);
        for (int later = 0; later < 3; ++later) {
            mac.clearCalls();
            EXPECT_EQ(readings(sampler.sample()), readings(first));
            EXPECT_EQ(mac.calls().total(), perSample);
            EXPECT_EQ(mac.calls().names, 0U);
            EXPECT_EQ(mac.calls().writes, 0U);
        }
    }
}

TEST(HardwareSamplerTest, FindsSensorsAnewOnlyAfterReset) {
    auto mac = simulator::intelMac(2);
    mac.setKey("TW0P", "sp78", {0x81, 0x00});  // nothing fitted yet
    const auto attached = mac.attach();
    auto sampler = samplerAt(kDate);
    EXPECT_EQ(celsius(sampler.sample(), "TW0P"), std::nullopt);
    mac.setNumber("TW0P", 44);
    EXPECT_EQ(celsius(sampler.sample(), "TW0P"), std::nullopt);
    sampler.reset();
    EXPECT_EQ(celsius(sampler.sample(), "TW0P"), 44);
    EXPECT_EQ(mac.ports().connections, 1);
}

TEST(HardwareSamplerTest, DropsWhatCannotBeWhileItLasts) {
    auto mac = simulator::intelMac(2);
    mac.setKey("TW0P", "flt ", {0x00, 0x00, 0x20, 0x42});
    mac.setKey("TW1P", "sp78", {0x28, 0x00});
    const auto attached = mac.attach();
    auto sampler = samplerAt(kDate);
    ASSERT_EQ(celsius(sampler.sample(), "TW0P"), 40);
    const struct {
        std::vector<std::uint8_t> bytes;
        std::optional<double> kept;
    } cases[] = {
        {{0x00, 0x00, 0x02, 0x43}, std::nullopt},        // 130.0
        {{0x00, 0x00, 0x00, 0x00}, std::nullopt},        // 0.0
        {{0x66, 0xE6, 0x01, 0x43}, 129.89999389648437},  // 129.9 as a float holds it
        {{0x00, 0x00, 0xC0, 0x7F}, std::nullopt},        // NaN
        {{0x00, 0x00, 0x80, 0x7F}, std::nullopt},        // infinity
        {{0x00, 0x00, 0x80, 0xBF}, std::nullopt},        // -1
        {{0x00, 0x00, 0x00, 0x43}, 128.0},               // passing through is no sentinel
    };
    for (const auto& c : cases) {
        mac.setKey("TW0P", "flt ", c.bytes);
        EXPECT_EQ(celsius(sampler.sample(), "TW0P"), c.kept);
    }
    mac.setNumber("TW0P", 40);
    mac.refuseReads("TW0P", simulator::kNotReadable, simulator::kOnce);
    EXPECT_EQ(celsius(sampler.sample(), "TW0P"), std::nullopt);
    EXPECT_EQ(celsius(sampler.sample(), "TW0P"), 40) << "back again";
    mac.wrongKeySize("TW1P", 1);
    EXPECT_EQ(celsius(sampler.sample(), "TW1P"), std::nullopt);
    mac.clearFaults();
    mac.readGarbage("");
    for (int sample = 0; sample < 50; ++sample) {
        for (const auto& sensor : sampler.sample().sensors) {
            EXPECT_TRUE(SensorInventory::valid(HardwareSensorKind::temperature, sensor.celsius));
        }
    }
}

TEST(HardwareSamplerTest, OtherKindsAreAdditionalSensors) {
    auto mac = simulator::intelMac(2);
    mac.setKey("PSTR", "flt ", {0x00, 0x00, 0xA0, 0x41});
    mac.setKey("IBAC", "sp78", {0xFC, 0x80});
    mac.setKey("VD0R", "flt ", {0x00, 0x00, 0xA0, 0x41});
    const auto attached = mac.attach();
    const auto snapshot = samplerAt(kDate).sample();
    using Reading = HardwareSensorReading;
    using Kind = HardwareSensorKind;
    const auto* power = additional(snapshot, "PSTR");
    ASSERT_NE(power, nullptr);
    EXPECT_EQ(*power, (Reading{"PSTR", "整机功耗 · PSTR", Kind::power, 20}));
    const auto* current = additional(snapshot, "IBAC");
    ASSERT_NE(current, nullptr) << "a battery that is drawn from has a negative current";
    EXPECT_EQ(*current, (Reading{"IBAC", "电池电流 · IBAC", Kind::current, -3.5}));
    const auto* fan = additional(snapshot, "F1Ac");
    ASSERT_NE(fan, nullptr);
    EXPECT_EQ(fan->label, "风扇 2");
    EXPECT_NEAR(fan->value, mac.fanRpm(1), 1);
    EXPECT_EQ(additional(snapshot, "TC0P"), nullptr);
    EXPECT_NE(celsius(snapshot, "TC0P"), std::nullopt);
    const auto byKey = [](const auto& a, const auto& b) { return a.key < b.key; };
    EXPECT_TRUE(std::is_sorted(snapshot.sensors.begin(), snapshot.sensors.end(), byKey));
}

TEST(HardwareSamplerTest, ReadsTheCoreKeysWhenNoneAreListed) {
    auto mac = simulator::intelMac(2);
    mac.setKey("TC0C", "sp78", {0x3C, 0x00});
    mac.setKey("TC9C", "sp78", {0x3D, 0x00});
    mac.removeKey("TC1C");
    mac.setUnreadable("#KEY");
    const auto attached = mac.attach();
    const auto snapshot = samplerAt(kDate).sample();
    EXPECT_EQ(snapshot.sensors, (std::vector<SensorReading>{{"TC0C", "CPU core sensor 0", 60},
                                                            {"TC9C", "CPU core sensor 9", 61}}));
    EXPECT_EQ(snapshot.fans.size(), 2U);
}

TEST(HardwareSamplerTest, WithoutControllerTheRestIsStillThere) {
    auto mac = simulator::macWithoutController();
    const auto attached = mac.attach();
    auto sampler = samplerAt(kDate);
    const auto snapshot = sampler.sample();
    EXPECT_FALSE(snapshot.smcAvailable);
    EXPECT_TRUE(snapshot.sensors.empty());
    EXPECT_TRUE(snapshot.fans.empty());
    EXPECT_GE(snapshot.totalCPUs, 1);
    EXPECT_TRUE(sampler.sample().cpuUsage);
}

TEST(HardwareSamplerTest, AsksForTheTurboDriverEveryFifthSample) {
    auto mac = simulator::intelMac(1);
    const auto attached = mac.attach();
    auto sampler = samplerAt(kDate);
    // The driver comes and goes before every sample; what is reported tells when it was asked for.
    bool loaded = false;
    const auto sampleToggled = [&] {
        loaded = !loaded;
        mac.set(Property::kExtensionLoaded, loaded ? 1 : 0);
        return sampler.sample().turbo;
    };
    constexpr auto kLoaded = TurboState::disabledDriverLoaded;
    constexpr auto kNotLoaded = TurboState::driverNotLoaded;
    for (int sample = 1; sample <= 12; ++sample) {
        // Asked on samples 1 (loaded), 6 (not loaded) and 11 (loaded).
        const auto expected = sample < 6 || sample >= 11 ? kLoaded : kNotLoaded;
        EXPECT_EQ(sampleToggled(), expected) << sample;
    }
    sampler.refreshTurbo();
    EXPECT_EQ(sampleToggled(), kLoaded);
    sampler.refreshTurbo();
    EXPECT_EQ(sampleToggled(), kNotLoaded) << "asked one sample ago, and again";
    mac.set(Property::kExtensionAnswers, 0);
    sampler.refreshTurbo();
    EXPECT_EQ(sampler.sample().turbo, TurboState::unknown);
}

TEST(HardwareSamplerTest, LimitsOutsideTheirRangeAreAbsent) {
    auto mac = simulator::intelMac(1);
    const auto attached = mac.attach();
    auto sampler = samplerAt(kDate);
    const struct {
        double percent;
        std::optional<int> kept;
    } cases[] = {{100, 100}, {0, 0}, {101, std::nullopt}, {-1, std::nullopt}, {57, 57}};
    for (const auto& c : cases) {
        mac.set(Property::kSpeedLimit, c.percent);
        mac.set(Property::kSchedulerLimit, c.percent);
        const auto snapshot = sampler.sample();
        EXPECT_EQ(snapshot.speedLimit, c.kept) << c.percent;
        EXPECT_EQ(snapshot.schedulerLimit, c.kept) << c.percent;
    }
    mac.set(Property::kAvailableCpus, 0);
    mac.set(Property::kThermalWarning, 0);
    EXPECT_EQ(sampler.sample().availableCPUs, 0);
    EXPECT_EQ(sampler.sample().thermalWarning, 0);
    mac.set(Property::kAvailableCpus, -2);
    mac.setNotANumber(Property::kSpeedLimit);
    mac.setAbsent(Property::kThermalWarning);
    const auto snapshot = sampler.sample();
    EXPECT_EQ(snapshot.availableCPUs, std::nullopt);
    EXPECT_EQ(snapshot.speedLimit, std::nullopt);
    EXPECT_EQ(snapshot.schedulerLimit, 57) << "the others are still read";
    EXPECT_EQ(snapshot.thermalWarning, std::nullopt);
}

TEST(HardwareSamplerTest, WhatTheSystemSays) {
    auto mac = simulator::intelMac(1);
    mac.setSystemVersion("12.0");
    mac.set(Property::kAcPower, 0);
    mac.set(Property::kLowPowerFlag, 1);
    mac.set(Property::kThermalState, 2);
    mac.set(Property::kMemoryPressure, 4);
    mac.set(Property::kProcessors, 12);
    const auto attached = mac.attach();
    auto sampler = samplerAt(kDate);
    const auto hot = sampler.sample();
    EXPECT_TRUE(hot.smcAvailable);
    EXPECT_EQ(hot.acPower, false);
    EXPECT_TRUE(hot.lowPower);
    EXPECT_EQ(hot.thermalState, 2);
    EXPECT_EQ(hot.memoryPressure, MemoryPressure::critical);
    EXPECT_EQ(hot.totalCPUs, 12);

    mac.setSystemVersion("11.7.10");  // has no low-power mode, whatever the flag says
    mac.setAbsent(Property::kAcPower);
    mac.set(Property::kMemoryPressure, 3);
    mac.set(Property::kThermalState, 0);
    const auto calm = sampler.sample();
    EXPECT_FALSE(calm.lowPower);
    EXPECT_EQ(calm.acPower, std::nullopt);
    EXPECT_EQ(calm.memoryPressure, std::nullopt);
    EXPECT_EQ(calm.thermalState, 0);
}

TEST(HardwareSamplerTest, ServesThreadsOneAfterTheOther) {
    auto mac = simulator::intelMac(2);
    const auto attached = mac.attach();
    auto sampler = samplerAt(kDate);
    const auto expected = readings(sampler.sample());
    std::thread other([&] {
        for (int turn = 0; turn < 50; ++turn) {
            sampler.reset();
            sampler.refreshTurbo();
        }
    });
    for (int turn = 0; turn < 50; ++turn) {
        EXPECT_EQ(readings(sampler.sample()), expected);
    }
    other.join();
}

}  // namespace
}  // namespace ferovane
