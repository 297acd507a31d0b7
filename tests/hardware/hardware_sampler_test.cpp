#include "core/hardware/hardware_sampler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "core/fan/curve_lease.h"
#include "core/hardware/sensor_inventory.h"
#include "core/hardware/smc.h"
#include "core/hardware/system_capabilities.h"
#include "core/model/json_codec.h"
#include "simulator/machine/simulated_mac.h"

namespace ferovane {
namespace {

using simulator::Property;
using Kind = HardwareSensorKind;

constexpr Date kDate{754567200.25};

HardwareSampler datedSampler() {
    return HardwareSampler([] { return kDate; });
}

// ---- The rules of a sample, on random machines
// ---------------------------------------------------

struct Machine {
    bool apple;
    std::vector<std::string> names;
    std::vector<double> values;
};
const Machine kMachines[] = {
    {false,
     {"TC0P", "TC0p", "TC1C", "TH0A", "TH0a", "TA0P", "TA0p", "TG0P", "TG0p", "TM0P", "PSTR",
      "IZAP", "VD0R", "F0Ac", "TC0G", "Te05", "TC0E", "TC0e"},
     {-127, -128, -127.5, 127, 127.5, 0, 0.125, 35, 35, 55, 55.125, 40, 8, -20, 10}},
    {true,
     {"TCMb", "TCMz", "TCDX", "TC10", "TCHP", "Te05", "Tp01", "Tp0o", "Tg0K", "Tm0p", "TH0T",
      "TH0x", "TaLP", "TB0T", "PSTR", "Tp0a", "F0Ac"},
     {40, 40, 0, -4, 8.5, 10, 10.5, 35.25, 129.875, 130, 127}}};

constexpr std::uint32_t kFlt = 0x666C7420, kSp78 = 0x73703738;

class SamplerRules {
public:
    SamplerRules(simulator::SimulatedMac& mac, const Machine& machine)
        : mac_(mac), machine_(machine) {}

    bool countRefused = false;  // the next reading of the number of keys fails
    int version = 14;           // of the system
    bool listed = false;
    int turn = 0;  // samples since the turbo driver was to be asked for

    Snapshot sample() {
        Snapshot snapshot;
        if (!listed) {
            list();
        }
        auto& others = snapshot.additionalSensors.emplace();
        for (const auto& [key, kind] : known_) {
            const auto value = mac_.number(key);
            const std::string label = SensorInventory::label(key, kind);
            if (!value || !SensorInventory::valid(kind, *value) || isOff(key, *value)) {
                continue;
            }
            if (kind == Kind::temperature) {
                snapshot.sensors.push_back({key, label, *value});
            } else {
                others.push_back({key, label, kind, *value});
            }
        }
        if (turn++ % 5 == 0) {
            turbo_ = is(Property::kExtensionAnswers) != 1  ? TurboState::unknown
                     : is(Property::kExtensionLoaded) == 1 ? TurboState::disabledDriverLoaded
                                                           : TurboState::driverNotLoaded;
        }
        snapshot.date = kDate;
        snapshot.smcAvailable = true;
        snapshot.turbo = turbo_;
        snapshot.speedLimit = within(Property::kSpeedLimit, 100);
        snapshot.schedulerLimit = within(Property::kSchedulerLimit, 100);
        snapshot.availableCPUs = within(Property::kAvailableCpus, 1000);
        snapshot.thermalWarning = within(Property::kThermalWarning, 1000);
        if (const auto power = is(Property::kAcPower)) {
            snapshot.acPower = *power == 1;
        }
        snapshot.lowPower = version >= 12 && is(Property::kLowPowerFlag) == 1;
        snapshot.thermalState = is(Property::kThermalState).value_or(-1);
        snapshot.totalCPUs = is(Property::kProcessors).value_or(0);
        snapshot.memoryPressure =
            fromRawValue<MemoryPressure>(is(Property::kMemoryPressure).value_or(-1));
        return snapshot;
    }

private:
    std::optional<int> is(Property property) {
        const auto value = mac_.value(property);
        return value && !std::isnan(*value) ? std::optional(static_cast<int>(*value))
                                            : std::nullopt;
    }
    std::optional<int> within(Property property, int most) {
        const auto value = is(property);
        return value && *value >= 0 && *value <= most ? value : std::nullopt;
    }
    void list() {
        known_.clear();
        for (const std::string& key : machine_.names) {
            const auto kind = SensorInventory::smcKind(key, machine_.apple ? kFlt : kSp78,
                                                       machine_.apple ? 4 : 2);
            if (!countRefused && kind && mac_.number(key) && isWorthListing(key, *kind)) {
                known_[key] = *kind;
            }
        }
        countRefused = false;
        listed = !known_.empty();
        for (char core = '0'; !listed && core <= '9'; ++core) {
            known_[std::string("TC") + core + 'C'] = Kind::temperature;
        }
    }
    bool isWorthListing(std::string key, Kind kind) {
        const double value = *mac_.number(key);
        const bool graphics = !machine_.apple && key.starts_with("TG");
        if ((isOnChip(key) && std::fabs(value) <= 10) || (graphics && value == 0)) {
            return true;
        }
        if (!SensorInventory::valid(kind, value) || value == -127 || value == -128) {
            return false;
        }
        // Intel's raw twin of a key, when the key itself tells as much.
        if (machine_.apple || key[0] != 'T' || std::islower(key[3]) == 0) {
            return true;
        }
        key[3] = static_cast<char>(std::toupper(key[3]));
        const double twin = mac_.number(key).value_or(0);
        const double distance = std::fabs(twin - value);
        return twin != -127 && twin != -128 &&
               !(twin > 0 && (distance == 0 || (key[1] == 'A' && distance == 20)));
    }
    bool isOnChip(const std::string& key) const {
        const bool processor = key[1] == 'C' && std::strchr("0123456789AMD", key[2]) != nullptr;
        return machine_.apple && key[0] == 'T' &&
               (std::strchr("egmps", key[1]) != nullptr || processor);
    }
    bool isOff(const std::string& key, double value) {
        const auto suspect = [](double celsius) { return celsius == 40 || celsius <= 10; };
        return isOnChip(key) && suspect(value) && std::ranges::any_of(known_, [&](auto& other) {
                   const double neighbour = mac_.number(other.first).value_or(0);
                   return isOnChip(other.first) && (key[1] != 'C' || other.first[1] == 'C') &&
                          neighbour < 130 && !suspect(neighbour);
               });
    }

    simulator::SimulatedMac& mac_;
    const Machine& machine_;
    std::map<std::string, Kind> known_;
    TurboState turbo_ = TurboState::unknown;
};

class SampledMachine {
public:
    explicit SampledMachine(unsigned seed) : random_(seed), machine_(kMachines[seed % 2]) {
        mac_.setAppleSilicon(machine_.apple);
        for (const std::string& name : machine_.names) {
            setAnew(name);
        }
        changeTheSystem();
    }

    void run() {
        const auto attached = mac_.attach();
        auto sampler = datedSampler();
        bool hasPrevious = false;
        for (int step = 0; step < 14; ++step) {
            change();
            if (chance(6)) {
                sampler.reset();
                rules_.listed = hasPrevious = false;
            }
            if (chance(5)) {
                sampler.refreshTurbo();
                rules_.turn = 0;
            }
            Snapshot taken = sampler.sample();
            ASSERT_EQ(taken.cpuUsage.has_value(), hasPrevious);
            ASSERT_TRUE(!hasPrevious || (*taken.cpuUsage >= 0 && *taken.cpuUsage <= 100));
            hasPrevious = true;
            taken.cpuUsage.reset();
            ASSERT_EQ(encodeJson(taken), encodeJson(rules_.sample())) << "step " << step;
        }
    }

private:
    bool chance(unsigned in) { return random_() % in == 0; }
    double oneOf(const std::vector<double>& values) { return values[random_() % values.size()]; }

    void setAnew(const std::string& name) {
        const std::vector<std::uint8_t> bytes(machine_.apple ? 4 : 2);
        mac_.setKey(name, machine_.apple ? "flt " : "sp78", bytes);
        mac_.setNumber(name, oneOf(machine_.values));
    }
    void change() {
        for (const std::string& name : machine_.names) {
            if (chance(3)) {
                setAnew(name);
            }
            if (chance(20)) {
                mac_.setUnreadable(name);
            }
        }
        mac_.set(Property::kExtensionLoaded, oneOf({0, 1}));
        mac_.set(Property::kExtensionAnswers, oneOf({0, 1, 1, 1}));
        if (chance(3)) {
            changeTheSystem();
        }
        if (chance(8) && !rules_.countRefused) {
            mac_.refuseReads("#KEY", simulator::kNotReadable, simulator::kOnce);
            rules_.countRefused = true;
        }
    }
    void changeTheSystem() {
        const struct {
            Property property;
            std::vector<double> values;
        } system[] = {
            {Property::kSpeedLimit, {-2, -1, 0, 57, 100, 101}},
            {Property::kSchedulerLimit, {-2, -1, 0, 57, 100, 101}},
            {Property::kAvailableCpus, {-2, -1, 0, 8}},
            {Property::kThermalWarning, {0, 5, 110}},
            {Property::kAcPower, {0, 1}},
            {Property::kLowPowerFlag, {0, 1}},
            {Property::kThermalState, {0, 1, 2, 3}},
            {Property::kMemoryPressure, {0, 1, 2, 3, 4, 5}},
            {Property::kProcessors, {1, 8, 12}},
        };
        for (const auto& [property, values] : system) {
            mac_.set(property, oneOf(values));
            if (chance(6)) {
                mac_.setAbsent(property);
            }
        }
        if (chance(6)) {
            mac_.setNotANumber(Property::kSpeedLimit);
            mac_.setNotANumber(Property::kAcPower);
        }
        rules_.version = static_cast<int>(oneOf({11, 12, 14}));
        mac_.setSystemVersion(std::to_string(rules_.version) + (chance(2) ? ".0" : ".7.10"));
    }

    std::mt19937 random_;
    const Machine& machine_;
    simulator::SimulatedMac mac_ = simulator::macFromKeyDump(
        "key,type,size,attributes,bytes,result\n#KEY,ui32,4,80,00000000,00\n");
    SamplerRules rules_{mac_, machine_};
};

TEST(HardwareSamplerTest, EverySampleFollowsTheRules) {
    for (unsigned seed = 1; seed <= 150; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        SampledMachine(seed).run();
        if (HasFatalFailure()) {
            return;
        }
    }
}

// ---- What the rules above do not say
// -------------------------------------------------------------

// Two calls per known sensor, and those of the fan list, on a machine of any size.
TEST(HardwareSamplerTest, ExactCallsPerSample) {
    constexpr std::uint64_t kFanListCalls = 2 + 1 + 2 * 5 * 2;  // the count, no mask, two fans
    for (const int sensors : {300, 9000}) {
        auto mac = simulator::intelMac(2);
        mac.addTemperatureKeys(sensors);
        const auto attached = mac.attach();
        auto sampler = datedSampler();
        const auto first = sampler.sample();
        const std::uint64_t found = first.sensors.size() + first.additionalSensors->size();
        EXPECT_GE(found, static_cast<std::uint64_t>(sensors));
        EXPECT_EQ(mac.calls().names, mac.keyCount());
        for (int later = 0; later < 3; ++later) {
            mac.clearCalls();
            (void)sampler.sample();
            EXPECT_EQ(mac.calls(),
                      (simulator::CallCounts{.reads = found + kFanListCalls / 2,
                                             .keyInfos = found + kFanListCalls / 2 + 1}));
        }
    }
}

TEST(HardwareSamplerTest, WithoutControllerTheRestIsStillThere) {
    auto mac = simulator::macWithoutController();
    const auto attached = mac.attach();
    auto sampler = datedSampler();
    const auto snapshot = sampler.sample();
    EXPECT_TRUE(!snapshot.smcAvailable && snapshot.sensors.empty() && snapshot.fans.empty());
    EXPECT_GE(snapshot.totalCPUs, 1);
    EXPECT_TRUE(sampler.sample().cpuUsage);
}

TEST(HardwareSamplerTest, ServesThreadsOneAfterTheOther) {
    auto mac = simulator::intelMac(2);
    const auto attached = mac.attach();
    auto sampler = datedSampler();
    const std::string expected = encodeJson(sampler.sample().sensors);
    std::thread other([&] {
        for (int turn = 0; turn < 50; ++turn) {
            sampler.reset();
            sampler.refreshTurbo();
        }
    });
    for (int turn = 0; turn < 50; ++turn) {
        EXPECT_EQ(encodeJson(sampler.sample().sensors), expected);
    }
    other.join();
}

}  // namespace
}  // namespace ferovane
