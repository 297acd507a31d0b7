// What is told beforehand of a lease, beside what the lease then does.
#include "core/fan/lease_obstacles.h"
#include "core/fan/fan_keys.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "core/hardware/smc.h"
#include "simulator/machine/simulated_mac.h"
#include "tests/fan/lease_world.h"
#include "tests/support/failure_text.h"

namespace ferovane {
namespace {

using testing::failureOf;
using testing::FakeCoolingHardware;
using testing::FanSwitch;
using testing::LeaseWorld;
using testing::steepCurve;

using Kind = LeaseObstacleKind;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr const char* kUnlockRefusal = "SMC Ftst 写入失败（130）";

// A machine and what a curve lease is to run on it with.
struct Case {
    LeaseWorld world;
    FanCurve curve = steepCurve();
    bool appleSilicon;

    explicit Case(FanSwitch fanSwitch = FanSwitch::intelModeKey, int count = 2)
        : world(count, fanSwitch), appleSilicon(fanSwitch != FanSwitch::intelModeKey) {}

    std::array<LeaseForecast, 2> forecast() {
        return LeaseObstacles::forecast(
            {world.fans, [&](const std::string& key) { return world.mac.number(key); },
             appleSilicon, kUnlockRefusal},
            curve, world.snapshot);
    }
    std::string failure(LeaseKind lease) {
        return failureOf(
            [&] { lease == LeaseKind::cooling ? world.cool(1) : world.follow(curve, 1); });
    }
};

struct Edit {
    std::string name;
    std::function<void(Case&)> apply;
};

// Everything that can be read of fan 0 and of the last one, wrong in every way; and the rest.
std::vector<Edit> edits(int count) {
    std::vector<Edit> all{
        {"nothing", [](Case&) {}},
        {"no fans", [](Case& it) { it.world.fans.listed = 0; }},
        {"no CPU sensor",
         [](Case& it) {
             it.world.snapshot.sensors = {{"TG0P", "", 50}};
         }},
        {"CPU NaN", [](Case& it) { it.world.setCelsius(kNaN); }},
        {"no GPU sensor", [](Case& it) { it.curve.sensor = CurveSensor::gpu; }},
        {"bad curve", [](Case& it) { it.curve.points.resize(1); }},
        {"only fan 0 controllable",
         [](Case& it) {
             it.world.fans.editReadings = [](auto& fans) {
                 for (auto& fan : fans) {
                     fan.controllable = fan.id == 0;
                 }
             };
         }},
        {"unlocked", [](Case& it) { it.world.mac["Ftst"] = it.appleSilicon ? 1 : 0; }},
        {"no unlock key", [](Case& it) { it.world.mac.keys["Ftst"].unreadable = true; }},
    };
    const std::pair<const char*, std::vector<double>> values[] = {
        {"Md", {1, 2, 3, kNaN}},
        {"Tg", {0, 1999, 6000, 6001, 9000, kNaN}},
        {"Mn", {-1, 0, 6000, 7000, kNaN}},
        {"Mx", {0, 1999, 12000, 12001, kNaN}},
    };
    for (const int fan : {0, count - 1}) {
        for (const auto& [suffix, wrong] : values) {
            const std::string key = FakeCoolingHardware::key(fan, suffix);
            all.push_back({key + " unreadable",
                           [key](Case& it) { it.world.mac.keys[key].unreadable = true; }});
            for (const double value : wrong) {
                all.push_back({key + "=" + std::to_string(value),
                               [key, value](Case& it) { it.world.mac[key] = value; }});
            }
        }
    }
    return all;
}

// What an obstacle tells must bear out what it is called.
void expectCoherence(const LeaseObstacle& obstacle) {
    EXPECT_FALSE(title(obstacle.kind).empty());
    const double value = obstacle.value.value_or(kNaN);
    const double limit = obstacle.limit.value_or(kNaN);
    switch (obstacle.kind) {
        case Kind::heldByAnother:
            EXPECT_TRUE(value != 0 && (value != 3 || obstacle.key == "FS! ")) << obstacle.key;
            break;
        case Kind::handOverOccupied:
            EXPECT_NE(value, 0);
            break;
        case Kind::parkedBelowMinimum:
            EXPECT_LT(value, limit);
            break;
        case Kind::targetAboveMaximum:
            EXPECT_GT(value, limit);
            break;
        case Kind::ratingOutOfRange:
            EXPECT_TRUE(value <= 0 || value > limit) << value << " " << limit;
            break;
        case Kind::targetUnreadable:
        case Kind::ratingUnreadable:
        case Kind::noModeKey:
            EXPECT_EQ(obstacle.value, std::nullopt) << obstacle.key;
            EXPECT_TRUE(obstacle.fan && obstacle.key.size() == 4);
            break;
        default:
            break;
    }
}

void expectAgreement(const LeaseForecast& forecast, const std::string& failure) {
    EXPECT_EQ(forecast.obstacles.empty(), !forecast.message.has_value());
    // A lock whose key cannot be read shows itself only when a fan is to be taken.
    const bool hiddenLock = !forecast.message && failure.starts_with("SMC Ftst 读取失败");
    if ((forecast.certain || !failure.empty()) && !hiddenLock) {
        EXPECT_EQ(forecast.message.value_or(""), failure);
    }
    bool named = !forecast.message;
    for (const LeaseObstacle& obstacle : forecast.obstacles) {
        named = named || obstacle.message == forecast.message;
        expectCoherence(obstacle);
    }
    EXPECT_TRUE(named) << "no obstacle stands for the message";
}

// The invariant, on one machine under some edits.
int check(FanSwitch fanSwitch, int count, const std::vector<Edit>& applied) {
    int refused = 0;
    for (const LeaseKind lease : {LeaseKind::cooling, LeaseKind::curve}) {
        Case machine(fanSwitch, count);
        for (const Edit& edit : applied) {
            edit.apply(machine);
        }
        const auto forecast = machine.forecast().at(lease == LeaseKind::cooling ? 0 : 1);
        EXPECT_TRUE(machine.world.mac.untouched());
        EXPECT_EQ(forecast.lease, lease);
        expectAgreement(forecast, machine.failure(lease));
        for (const LeaseObstacle& obstacle : forecast.obstacles) {
            if (obstacle.value && machine.world.mac.untouched()) {
                EXPECT_EQ(obstacle.value, machine.world.mac.number(obstacle.key));
            }
        }
        refused += forecast.message && forecast.certain ? 1 : 0;
    }
    return refused;
}

TEST(LeaseObstaclesTest, AgreeWithBothLeasesWhateverIsWrong) {
    int cases = 0;
    int refused = 0;
    for (const FanSwitch fanSwitch : {FanSwitch::intelModeKey, FanSwitch::openHandOver,
                                      FanSwitch::lockedHandOver, FanSwitch::refusedHandOver}) {
        for (const int count : {1, 2, 10}) {
            const auto all = edits(count);
            for (std::size_t first = 0; first < all.size(); ++first) {
                // Pairs on one machine of either kind, single faults elsewhere.
                const bool pairs = count == 2 && (fanSwitch == FanSwitch::intelModeKey ||
                                                  fanSwitch == FanSwitch::openHandOver);
                const std::size_t last = pairs ? all.size() : first + 1;
                for (std::size_t second = first; second < last; ++second) {
                    SCOPED_TRACE(::testing::Message()
                                 << "switch " << static_cast<int>(fanSwitch) << ", " << count
                                 << " fans, " << all[first].name << ", " << all[second].name);
                    refused += check(fanSwitch, count, {all[first], all[second]});
                    cases += 2;
                    if (HasFailure()) {
                        return;
                    }
                }
            }
        }
    }
    RecordProperty("cases", cases);
    EXPECT_GT(refused, cases / 2);
    EXPECT_LT(refused, cases);
}

TEST(LeaseObstaclesTest, NameTheFanTheKeyTheValueAndTheLimit) {
    const auto only = [](const std::function<void(Case&)>& edit, FanSwitch fanSwitch) {
        Case machine(fanSwitch);
        edit(machine);
        const auto forecasts = machine.forecast();
        EXPECT_EQ(forecasts[1].obstacles.size(), 1);
        auto obstacle = forecasts[1].obstacles.at(0);
        obstacle.message.clear();
        return obstacle;
    };
    const auto set = [](const char* key, double value) {
        return [=](Case& it) { it.world.mac[key] = value; };
    };
    const auto lose = [](const char* key) {
        return [=](Case& it) { it.world.mac.keys[key].unreadable = true; };
    };
    constexpr auto kIntel = FanSwitch::intelModeKey;
    constexpr auto kApple = FanSwitch::openHandOver;
    const std::nullopt_t none = std::nullopt;
    const struct {
        LeaseObstacle found, expected;
    } cases[] = {
        {only(set("F1Md", 1), kIntel), {Kind::heldByAnother, 1, "F1Md", 1, none, ""}},
        {only(set("F1Md", 2), kApple), {Kind::heldByAnother, 1, "F1Md", 2, none, ""}},
        {only(lose("F1Md"), kIntel), {Kind::noModeKey, 1, "F1Md", none, none, ""}},
        {only(set("F1Tg", 0), kIntel), {Kind::parkedBelowMinimum, 1, "F1Tg", 0, 2000, ""}},
        {only(set("F1Tg", 6201), kIntel), {Kind::targetAboveMaximum, 1, "F1Tg", 6201, 6200, ""}},
        {only(lose("F1Tg"), kIntel), {Kind::targetUnreadable, 1, "F1Tg", none, none, ""}},
        {only(set("F1Mx", 12001), kIntel), {Kind::ratingOutOfRange, 1, "F1Mx", 12001, 12000, ""}},
        {only(set("F1Mn", 0), kIntel), {Kind::ratingOutOfRange, 1, "F1Mn", 0, 0, ""}},
        {only(set("F1Mn", 7000), kIntel), {Kind::ratingOutOfRange, 1, "F1Mn", 7000, 6200, ""}},
        {only(lose("F1Mn"), kIntel), {Kind::ratingUnreadable, 1, "F1Mn", none, none, ""}},
        {only([](Case& it) { it.world.setCelsius(kNaN); }, kApple),
         {Kind::noControlTemperature, none, "", none, none, ""}},
    };
    for (const auto& [found, expected] : cases) {
        EXPECT_EQ(title(found.kind), title(expected.kind));
        EXPECT_EQ(found, expected) << found.key;
    }
    Case zeroMinimum;
    zeroMinimum.world.mac["F1Mn"] = 0;
    EXPECT_EQ(zeroMinimum.forecast()[0].message, std::nullopt) << "full speed stops no fan";

    Case occupied(FanSwitch::openHandOver);
    occupied.world.mac["Ftst"] = 1;
    const auto forecast = occupied.forecast()[0];
    EXPECT_EQ(forecast.message, "风扇控制交接已被占用，请先恢复系统自动");
    EXPECT_EQ(forecast.obstacles.at(1).kind, Kind::handOverOccupied);

    const auto locked = Case(FanSwitch::lockedHandOver).forecast()[1];
    EXPECT_EQ(locked.message, kUnlockRefusal);
    EXPECT_FALSE(locked.certain);
    EXPECT_EQ(locked.obstacles.at(1),
              (LeaseObstacle{Kind::handOverLocked, 1, "Ftst", 0, none, kUnlockRefusal}));
}

using simulator::SimulatedMac;

// The invariant for a lease on a machine as it is, through its controller.
// Where a key reads back something else than was written to it, the lease finds out when it writes,
// and no reading foretells that.
enum class Outcome { starts, meetsLock, isRefused, failsAtWriting };
Outcome check(SimulatedMac& mac, LeaseKind lease, bool breaksWriting) {
    const auto attached = mac.attach();
    auto surroundings = SMC::Surroundings::ofThisMachine();
    surroundings.sleep = [&](double seconds) { mac.advance(seconds); };
    SMC smc(surroundings);
    Snapshot sample;
    sample.sensors = {{"TC0P", "", 50}};
    const ReadableFans fans{smc, [&](const std::string& key) { return smc.number(key); },
                            surroundings.appleSilicon, SMC::notAdmitted(FanKeys::kUnlock)};
    const auto forecast = LeaseObstacles::forecast(fans, steepCurve(), sample)
                              .at(lease == LeaseKind::cooling ? 0 : 1);
    EXPECT_EQ(mac.writes(), "") << "a forecast touches nothing";
    const std::string failure = failureOf([&] {
        int rounds = 0;
        const auto now = [] { return 0.0; };
        const auto isCancelled = [&] { return rounds > 0; };
        const auto wait = [&](double) { ++rounds; };
        if (lease == LeaseKind::cooling) {
            CoolingLease::run(smc, 1, now, isCancelled, wait);
        } else {
            CurveLease::run(
                smc, steepCurve(), 1, [&] { return sample; }, now, isCancelled, wait,
                [](const FanControlProgress&) {}, [] {});
        }
    });
    const bool refused = forecast.message && forecast.certain;
    if (breaksWriting && !refused && !failure.empty() && !mac.writes().empty()) {
        return Outcome::failsAtWriting;
    }
    expectAgreement(forecast, failure);
    if (refused) {
        return Outcome::isRefused;
    }
    return failure.empty() ? Outcome::starts : Outcome::meetsLock;
}

struct Machine {
    std::string name;
    std::function<SimulatedMac()> make;
};

// Every built-in machine, one behind a lock, and the controllers of real machines as they were.
std::vector<Machine> everyMachine() {
    std::vector<Machine> machines{
        {"locked", [] {
             simulator::AppleSiliconOptions locked;
             locked.manualMode = simulator::AppleSiliconOptions::ManualMode::kRefusedUntilUnlocked;
             return simulator::appleSiliconMac(2, locked);
         }}};
    for (const auto& model : simulator::builtInModels()) {
        machines.push_back(
            {model.name, [name = model.name] { return simulator::builtInMac(name); }});
    }
    for (const auto& file :
         std::filesystem::directory_iterator(FEROVANE_TEST_DATA "/controllers")) {
        std::ifstream table(file.path(), std::ios::binary);
        std::string keys(std::istreambuf_iterator<char>(table), {});
        if (keys.find("FNum") != std::string::npos) {
            machines.push_back({file.path().stem().string(), [keys = std::move(keys)] {
                                    return simulator::macFromKeyDump(keys);
                                }});
        }
    }
    return machines;
}

struct Strike {
    std::function<void(SimulatedMac&, const std::string& key)> apply;
    bool breaksWriting = false;  // what the key reads does not follow what is written to it
};

// What can be wrong with one key, for good.
std::vector<Strike> everyFaultOfAKey() {
    std::vector<Strike> faults{
        {[](auto& mac, const auto& key) { mac.setUnreadable(key); }},
        {[](auto& mac, const auto& key) { mac.removeKey(key); }},
        {[](auto& mac, const auto& key) { mac.refuseReads(key, simulator::kNotReadable); }},
        {[](auto& mac, const auto& key) { mac.readZeros(key); }, true},
        {[](auto& mac, const auto& key) { mac.wrongKeySize(key, 3); }},
    };
    using Bytes = std::vector<std::uint8_t>;
    const std::pair<const char*, Bytes> replacements[] = {
        {"flag", {1}},
        {"ch8*", {'n', 'o', 0}},
        {"flt ", {0, 0, 0xC0, 0x7F}},  // NaN
        {"flt ", {0, 0, 0x80, 0x7F}},  // infinity
        {"flt ", {0, 0, 0, 0x80}},     // -0
    };
    for (const auto& [type, bytes] : replacements) {
        faults.push_back({[type = type, bytes = bytes](auto& mac, const auto& key) {
                              mac.setKey(key, type, bytes);
                          },
                          true});
    }
    for (const double number : {0, 1, 2, 3, 255}) {
        faults.push_back({[=](auto& mac, const auto& key) { mac.setNumber(key, number); }});
    }
    return faults;
}

// What can be wrong with the whole machine.
std::vector<Strike> everyOtherFault() {
    const auto withMask = [](std::uint8_t mask, bool modeKeys) {
        return Strike{[=](auto& mac, const auto&) {
                          mac.setKey("FS! ", "ui16", {0, mask});
                          if (!modeKeys) {
                              mac.removeKey("F0Md");
                          }
                      },
                      true};
    };
    return {
        withMask(0, false),
        withMask(1, false),
        withMask(2, false),
        withMask(1, true),
        withMask(2, true),
        {[](auto&, const auto&) {}},
        {[](auto& mac, const auto&) { mac.refuseOpening(-536870207); }},
        {[](auto& mac, const auto&) { mac.refuseCalls(simulator::kBadCommand); }},
        {[](auto& mac, const auto&) { mac.wrongOutputSize(40); }},
        {[](auto& mac, const auto&) { mac.otherTakesFan(0); }},
        {[](auto& mac, const auto&) { mac.otherHoldsUnlock(); }},
        {[](auto& mac, const auto&) { mac.vanishFan(0); }},
        {[](auto& mac, const auto&) { mac.driftTarget(0, -5000); }},
        {[](auto& mac, const auto&) { mac.driftTarget(0, 20000); }},
    };
}

TEST(LeaseObstaclesTest, AgreeOnEveryMachineUnderEveryFault) {
    const auto keyFaults = everyFaultOfAKey();
    const auto otherFaults = everyOtherFault();
    std::map<Outcome, int> seen;
    const auto strike = [&](const Machine& machine, const std::string& key, const Strike& fault) {
        for (const LeaseKind lease : {LeaseKind::cooling, LeaseKind::curve}) {
            SimulatedMac mac = machine.make();
            if (!key.empty() && !mac.hasKey(key)) {
                return;
            }
            if (!key.empty() || mac.fanCount() > 0) {
                fault.apply(mac, key);
            }
            ++seen[check(mac, lease, fault.breaksWriting)];
        }
    };
    for (const Machine& machine : everyMachine()) {
        for (std::size_t fault = 0; fault < otherFaults.size(); ++fault) {
            SCOPED_TRACE(::testing::Message() << machine.name << ", fault " << fault);
            strike(machine, "", otherFaults[fault]);
        }
        for (const char* key : {"F0Md", "F0md", "F1Md", "FS! ", "Ftst", "F0Tg", "F1Tg", "F0Mn",
                                "F1Mn", "F0Mx", "F1Mx", "F0Ac", "FNum"}) {
            for (std::size_t fault = 0; fault < keyFaults.size(); ++fault) {
                SCOPED_TRACE(::testing::Message()
                             << machine.name << ", " << key << ", fault " << fault);
                strike(machine, key, keyFaults[fault]);
            }
            ASSERT_FALSE(HasFailure());
        }
    }
    EXPECT_GT(seen[Outcome::isRefused], 1000);
    EXPECT_GT(seen[Outcome::meetsLock], 50);
    EXPECT_GT(seen[Outcome::starts], 500);
}

}  // namespace
}  // namespace ferovane
