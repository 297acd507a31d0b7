#include "core/hardware/hardware_sampler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "core/hardware/sensor_inventory.h"
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
    std::vector<std::string> names, values;  // values as bytes in hexadecimal
    std::string_view type;
};

const Machine kIntel{{"TC0P", "TC0p", "TC1C", "TH0A", "TH0a", "TA0P", "TA0p", "TG0P", "TG0p",
                      "TM0P", "PSTR", "IZAP", "VD0R", "F0Ac", "TC0G", "Te05", "TC0E", "TC0e"},
                     {"8100", "8000", "8001", "7F00", "0000", "0001", "2300", "3700", "3701",
                      "2800", "0800", "EC00", "F600", "0A00"},
                     "sp78"};
const Machine kAppleSilicon{
    {"TCMb", "TCMz", "TCDX", "TC10", "TCHP", "Te05", "Tp01", "Tp0o", "Tg0K", "Tm0p", "TH0T", "TH0x",
     "TaLP", "TB0T", "PSTR", "Tp0a", "F0Ac"},
    {"00002042", "00002042", "00000000", "000080C0", "9A990741", "00002041", "00002841", "CDCC0C42",
     "66E60143", "00000243", "0000C07F", "0000807F"},  // 40 40 0 -4 8.475 10 10.5 35.2 129.9 130 …
    "flt "};

class SamplerRules {
public:
    SamplerRules(simulator::SimulatedMac& mac, const Machine& machine)
        : mac_(mac), machine_(machine), apple_(machine.type == "flt ") {}

    // Whether the next search for sensors fails, for the count of keys cannot be read.
    bool countRefused = false;

    Snapshot sample() {
        Snapshot snapshot;
        if (!listed_) {
            list();
        }
        snapshot.additionalSensors.emplace();
        for (const auto& [key, kind] : known_) {
            const auto value = read(key);
            if (!value || !SensorInventory::valid(kind, *value) || isOff(key, *value)) {
                continue;
            }
            const std::string label = SensorInventory::label(key, kind);
            if (kind == Kind::temperature) {
                snapshot.sensors.push_back({key, label, *value});
            } else {
                snapshot.additionalSensors->push_back({key, label, kind, *value});
            }
        }
        if (turn_++ % 5 == 0) {
            const bool answers = mac_.value(Property::kExtensionAnswers) == 1;
            const bool loaded = mac_.value(Property::kExtensionLoaded) == 1;
            turbo_ = !answers ? TurboState::unknown
                     : loaded ? TurboState::disabledDriverLoaded
                              : TurboState::driverNotLoaded;
        }
        snapshot.turbo = turbo_;
        snapshot.speedLimit = within(Property::kSpeedLimit, 0, 100);
        snapshot.schedulerLimit = within(Property::kSchedulerLimit, 0, 100);
        snapshot.availableCPUs = within(Property::kAvailableCpus, 0, 1000);
        snapshot.thermalWarning = within(Property::kThermalWarning, 0, 1000);
        if (const auto ac = mac_.value(Property::kAcPower)) {
            snapshot.acPower = *ac == 1;
        }
        snapshot.lowPower = version >= 12 && mac_.value(Property::kLowPowerFlag) == 1;
        snapshot.thermalState = static_cast<int>(*mac_.value(Property::kThermalState));
        snapshot.totalCPUs = static_cast<int>(*mac_.value(Property::kProcessors));
        snapshot.memoryPressure =
            fromRawValue<MemoryPressure>(static_cast<int>(*mac_.value(Property::kMemoryPressure)));
        snapshot.smcAvailable = true;
        snapshot.date = kDate;
        return snapshot;
    }
    void reset() { listed_ = false; }
    void refreshTurbo() { turn_ = 0; }
    int version = 14;

private:
    std::optional<double> read(const std::string& key) { return mac_.number(key); }

    std::optional<int> within(Property property, int least, int most) {
        const auto value = mac_.value(property);
        return value && *value >= least && *value <= most ? std::optional(static_cast<int>(*value))
                                                          : std::nullopt;
    }

    void list() {
        known_.clear();
        listed_ = !std::exchange(countRefused, false);
        for (const std::string& key : machine_.names) {
            const auto kind = SensorInventory::smcKind(key, code(key), apple_ ? 4 : 2);
            if (listed_ && kind && read(key) && isWorthListing(key, *kind) && !isSpare(key)) {
                known_[key] = *kind;
            }
        }
        listed_ = !known_.empty();
        for (char core = '0'; !listed_ && core <= '9'; ++core) {
            known_[std::string("TC") + core + 'C'] = Kind::temperature;
        }
    }
    std::uint32_t code(const std::string& key) const {
        const std::string_view type = key[0] == 'F' && !apple_ ? "fpe2" : machine_.type;
        std::uint32_t packed = 0;
        for (const char c : type) {
            packed = packed << 8 | static_cast<unsigned char>(c);
        }
        return packed;
    }
    bool isWorthListing(const std::string& key, Kind kind) {
        const double value = *read(key);
        const bool sentinel = value == -127 || value == -128 ||
                              (kind == Kind::temperature && value >= 127 && value <= 129 &&
                               value == std::floor(value));
        return (isOnChip(key) && std::fabs(value) <= 10) ||
               (SensorInventory::valid(kind, value) && !(sentinel && kind != Kind::fan));
    }
    // Intel's raw twin of a key, when the key itself tells as much.
    bool isSpare(std::string key) {
        if (apple_ || key[0] != 'T' || std::islower(key[3]) == 0) {
            return false;
        }
        const double value = *read(key);
        key[3] = static_cast<char>(std::toupper(key[3]));
        const auto twin = read(key);
        return twin && (*twin == -127 || *twin == -128 || (*twin > 0 && *twin == value) ||
                        (key[1] == 'A' && *twin > 0 && std::fabs(*twin - value) == 20));
    }
    bool isOnChip(const std::string& key) const {
        return apple_ && key[0] == 'T' &&
               (std::strchr("egmps", key[1]) != nullptr ||
                (key[1] == 'C' && std::strchr("0123456789AMD", key[2]) != nullptr));
    }
    bool isOff(const std::string& key, double value) {
        const auto suspect = [](double celsius) { return celsius == 40 || celsius <= 10; };
        return isOnChip(key) && suspect(value) &&
               std::any_of(known_.begin(), known_.end(), [&](const auto& other) {
                   const auto reading = read(other.first);
                   return isOnChip(other.first) && (key[1] != 'C' || other.first[1] == 'C') &&
                          reading && *reading > 0 && *reading < 130 && !suspect(*reading);
               });
    }

    simulator::SimulatedMac& mac_;
    const Machine& machine_;
    bool apple_;
    std::map<std::string, Kind> known_;
    bool listed_ = false;
    int turn_ = 0;
    TurboState turbo_ = TurboState::unknown;
};

class SampledMachine {
public:
    explicit SampledMachine(unsigned seed)
        : random_(seed), machine_(oneOf(std::vector{kIntel, kAppleSilicon})), mac_(made()) {
        mac_.setAppleSilicon(machine_.type == "flt ");
        changeTheSystem();
    }

    void run() {
        auto sampler = datedSampler();
        bool hasPrevious = false;
        for (int step = 0; step < 14; ++step) {
            change();
            if (chance(6)) {
                sampler.reset();
                rules_.reset();
                hasPrevious = false;
            }
            if (chance(5)) {
                sampler.refreshTurbo();
                rules_.refreshTurbo();
            }
            Snapshot taken = sampler.sample();
            ASSERT_EQ(taken.cpuUsage.has_value(), hasPrevious);
            hasPrevious = true;
            ASSERT_TRUE(!taken.cpuUsage || (*taken.cpuUsage >= 0 && *taken.cpuUsage <= 100));
            taken.cpuUsage.reset();
            ASSERT_EQ(encodeJson(taken), encodeJson(rules_.sample())) << "step " << step;
        }
    }

private:
    bool chance(unsigned in) { return random_() % in == 0; }
    template <class T>
    T oneOf(const std::vector<T>& values) {
        return values[random_() % values.size()];
    }

    simulator::SimulatedMac made() {
        std::string dump = "key,type,size,attributes,bytes,result\n";
        for (const std::string& name : machine_.names) {
            const bool fan = name[0] == 'F' && machine_.type == "sp78";
            const std::string value = oneOf(machine_.values);
            dump += name + "," + (fan ? "fpe2" : std::string(machine_.type)) + "," +
                    std::to_string(value.size() / 2) + ",80," + value + ",00\n";
        }
        return simulator::macFromKeyDump(dump);
    }
    void change() {
        for (const std::string& name : machine_.names) {
            if (chance(3)) {
                const std::string hex = oneOf(machine_.values);
                std::vector<std::uint8_t> bytes;
                for (std::size_t at = 0; at < hex.size(); at += 2) {
                    bytes.push_back(
                        static_cast<std::uint8_t>(std::stoi(hex.substr(at, 2), nullptr, 16)));
                }
                const bool fan = name[0] == 'F' && machine_.type == "sp78";
                mac_.setKey(name, fan ? "fpe2" : machine_.type, bytes);
            }
            if (chance(20)) {
                mac_.setUnreadable(name);
            }
        }
        mac_.set(Property::kExtensionLoaded, oneOf<double>({0, 1}));
        mac_.set(Property::kExtensionAnswers, chance(4) ? 0 : 1);
        if (chance(3)) {
            changeTheSystem();
        }
        if (chance(8) && !rules_.countRefused) {
            mac_.refuseReads("#KEY", simulator::kNotReadable, simulator::kOnce);
            rules_.countRefused = true;
        }
    }
    void changeTheSystem() {
        for (const Property limit :
             {Property::kSpeedLimit, Property::kSchedulerLimit, Property::kAvailableCpus}) {
            mac_.set(limit, oneOf<double>({-2, -1, 0, 57, 100, 101}));
            if (chance(6)) {
                mac_.setAbsent(limit);
            }
        }
        mac_.set(Property::kThermalWarning, oneOf<double>({0, 5, 110}));
        mac_.set(Property::kAcPower, oneOf<double>({0, 1}));
        if (chance(4)) {
            mac_.setAbsent(chance(2) ? Property::kAcPower : Property::kThermalWarning);
        }
        mac_.set(Property::kLowPowerFlag, oneOf<double>({0, 1}));
        mac_.set(Property::kThermalState, oneOf<double>({0, 1, 2, 3}));
        mac_.set(Property::kMemoryPressure, oneOf<double>({0, 1, 2, 3, 4, 5}));
        mac_.set(Property::kProcessors, oneOf<double>({1, 8, 12}));
        rules_.version = oneOf<int>({11, 12, 14});
        mac_.setSystemVersion(std::to_string(rules_.version) + (chance(2) ? ".0" : ".7.10"));
    }

    std::mt19937 random_;
    const Machine machine_;
    simulator::SimulatedMac mac_;
    SamplerRules rules_{mac_, machine_};
    simulator::Attachment attached_ = mac_.attach();
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
    EXPECT_FALSE(snapshot.smcAvailable);
    EXPECT_TRUE(snapshot.sensors.empty());
    EXPECT_TRUE(snapshot.fans.empty());
    EXPECT_GE(snapshot.totalCPUs, 1);
    EXPECT_TRUE(sampler.sample().cpuUsage);
}

TEST(HardwareSamplerTest, ServesThreadsOneAfterTheOther) {
    auto mac = simulator::intelMac(2);
    const auto attached = mac.attach();
    auto sampler = datedSampler();
    const auto sensors = [&] { return encodeJson(sampler.sample().sensors); };
    const std::string expected = sensors();
    std::thread other([&] {
        for (int turn = 0; turn < 50; ++turn) {
            sampler.reset();
            sampler.refreshTurbo();
        }
    });
    for (int turn = 0; turn < 50; ++turn) {
        EXPECT_EQ(sensors(), expected);
    }
    other.join();
    EXPECT_EQ(mac.ports().connections, 1);
}

}  // namespace
}  // namespace ferovane
