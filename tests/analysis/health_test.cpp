// What is told of the health of simulated machines: nothing of sound ones, and of each fault its
// own name. FEROVANE_HEALTH=1 makes the whole runs, a smaller number a part of them; without it a
// sample of each is made.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "core/analysis/machine_health.h"
#include "core/hardware/hardware_sampler.h"
#include "core/hardware/smc.h"
#include "core/model/json_codec.h"
#include "simulator/machine/machine.h"
#include "simulator/machine/simulated_mac.h"
#include "tests/analysis/observation.h"

namespace ferovane::testing {
namespace {

using simulator::Property;
using simulator::SimulatedMac;
using Kind = HealthKind;

constexpr double kDay = 86400;

const char* const kScale = std::getenv("FEROVANE_HEALTH");
const double kPart = kScale == nullptr ? 0 : std::atof(kScale);
int scaled(int sample, int whole) {
    return std::max(sample, static_cast<int>(std::lround(kPart * whole)));
}

// A machine at work, watched by a monitor.
class WatchedMac {
public:
    WatchedMac(SimulatedMac machine, unsigned seed, HealthRecord learned = {})
        : mac(std::move(machine)), random(seed), health(std::move(learned)) {
        mac.settle();
    }

    void watch(double seconds, double pace) {
        for (const double until = mac.now() + seconds; mac.now() < until;) {
            work(pace);
            mac.advance(pace);
            Snapshot snapshot = sampler_.sample();
            std::vector<FanTarget> targets;
            for (FanReading& fan : snapshot.fans) {
                if (const auto target = smc_.target(fan.id)) {
                    targets.push_back({fan.id, *target});
                }
                if (fan.rpm && *fan.rpm > 0) {
                    *fan.rpm *= 1 + noise(0.004);
                }
            }
            edit(snapshot);
            health.add(snapshot, targets);
            if (stop()) {
                return;
            }
        }
    }

    bool tells(Kind kind) const {
        return std::ranges::any_of(health.findings(),
                                   [kind](const auto& it) { return it.kind == kind; });
    }
    std::string told() const {
        std::string all;
        for (const HealthFinding& finding : health.findings()) {
            all += text(finding) + "\n";
        }
        return all;
    }
    double noise(double sigma) { return std::normal_distribution<double>(0, sigma)(random); }
    double uniform(double least, double most) {
        return std::uniform_real_distribution<double>(least, most)(random);
    }
    void setLoad(double percent, double seconds) {
        base_ = percent;
        jitter_ = 0;
        left_ = seconds;
        mac.set(Property::kLoad, percent);
    }
    template <class Change>
    void change(Change&& apply) {
        mac.machine().locked([&](simulator::World& world) { apply(world.state()); });
    }

    SimulatedMac mac;
    std::mt19937 random;
    MachineHealth health;
    std::function<void(Snapshot&)> edit = [](Snapshot&) {};
    std::function<bool()> stop = [] { return false; };

private:
    // Loads of minutes to half an hour, in a room that is warmer by day.
    void work(double pace) {
        if ((left_ -= pace) <= 0) {
            left_ = uniform(0, 1) < 0.3 ? uniform(600, 2400) : uniform(20, 300);
            base_ = uniform(0, 1) < 0.4 ? 5 : uniform(5, 100);
            graphics_ = uniform(0, 1) < 0.7 ? 0 : uniform(0, 100);
            jitter_ = uniform(0, 1) < 0.5 ? 0 : 4;
            mac.set(Property::kGraphicsLoad, graphics_);
            mac.set(Property::kAmbient, 23 + 3 * std::sin(mac.now() / kDay * 6.283));
        } else if (jitter_ == 0) {
            return;
        }
        mac.set(Property::kLoad, std::clamp(base_ + noise(jitter_), 0.0, 100.0));
    }

    const simulator::Attachment attachment_{mac.attach()};
    HardwareSampler sampler_{[this] { return kStart + mac.now(); }};
    SMC smc_{SMC::Surroundings{[this] { return mac.now(); },
                               [this](double seconds) { mac.advance(seconds); }, false}};
    double left_ = 0, base_ = 5, graphics_ = 0, jitter_ = 0;
};

TEST(HealthTest, TellsNothingOfSoundMachines) {
    unsigned seed = 0;
    for (const simulator::ModelInfo& model : simulator::builtInModels()) {
        WatchedMac watched(simulator::builtInMac(model.name), ++seed);
        watched.stop = [&] { return !watched.health.findings().empty(); };
        const double seconds = std::max(60.0, kPart * 30 * kDay);
        for (double passed = 0; passed < seconds; passed += kDay / 4) {
            watched.watch(std::min(kDay / 4, seconds), 10);
            ASSERT_EQ(watched.told(), "") << model.name << " after " << passed / kDay << " days";
            watched.mac.sleep(watched.uniform(0, 1) < 0.5 ? 0 : watched.uniform(20, 20000));
        }
        std::printf("%s: nothing in %.2f days\n", model.name.c_str(), seconds / kDay);
    }
}

// A fault, how it begins, and how long a monitor may take to name it.
struct Fault {
    const char* name;
    Kind kind;
    double seconds;
    std::function<void(WatchedMac&)> begin;
};

const Fault kFaults[] = {
    {"fan at 70 % of its speed", Kind::fanSlow, 3600,
     [](WatchedMac& it) { it.edit = [](Snapshot& snapshot) { *snapshot.fans[0].rpm *= 0.7; }; }},
    {"fan stalled", Kind::fanStopped, 600,
     [](WatchedMac& it) { it.change([](auto& world) { world.fans[0].reachable = 0; }); }},
    {"ceiling at 85 %", Kind::fanCeiling, 3 * kDay + 600,
     [](WatchedMac& it) {
         it.change([](auto& world) { world.fans[0].reachable = 0.85 * world.fans[0].maximum; });
         for (int day = 0; day < 3 && !it.stop(); ++day) {
             it.mac.otherTakesFan(0);  // asks for full speed
             it.watch(150, 2);
             it.mac.otherReleasesFan(0);
             it.mac.sleep(kDay);
         }
     }},
    {"fan runs unasked", Kind::fanUnasked, 3600,
     [](WatchedMac& it) {
         it.edit = [](Snapshot& snapshot) {
             *snapshot.fans[1].rpm = std::max(5500.0, *snapshot.fans[1].rpm);
         };
     }},
    {"key frozen", Kind::sensorFrozen, 3 * 3600,
     [](WatchedMac& it) { it.mac.freezeReads("TC0P"); }},
    {"spike", Kind::sensorSpike, 600,
     [](WatchedMac& it) {
         it.edit = [&it, since = it.mac.now()](Snapshot& snapshot) {
             const bool now = std::abs(it.mac.now() - since - 100) < 1;
             snapshot.sensors[0].celsius += now ? 20 : 0;
         };
     }},
    {"offset", Kind::sensorOffset, 600,
     [](WatchedMac& it) {
         it.setLoad(50, 600);  // a jump that others join is told of none
         it.edit = [&it, since = it.mac.now()](Snapshot& snapshot) {
             snapshot.sensors[0].celsius += it.mac.now() - since > 100 ? 8 : 0;
         };
     }},
    {"key gone", Kind::sensorGone, 1200, [](WatchedMac& it) { it.mac.removeKey("TC0P"); }},
};

HealthRecord learned() {
    static const std::string record = [] {
        WatchedMac watched(simulator::intelMac(2), 1);
        watched.watch(7 * 3600, 12);
        return encodeJson(watched.health.record());
    }();
    return decodeJson<HealthRecord>(record);
}

TEST(HealthTest, NamesEachFaultAndOnlyThat) {
    for (const Fault& fault : kFaults) {
        double longest = 0, sum = 0;
        const int times = scaled(1, 50);
        for (int i = 0; i < times; ++i) {
            WatchedMac watched(simulator::intelMac(2), static_cast<unsigned>(100 + i), learned());
            watched.watch(watched.uniform(60, 900), 2);
            ASSERT_EQ(watched.told(), "") << fault.name << ", seed " << i;
            const double since = watched.mac.now();
            watched.stop = [&] { return watched.tells(fault.kind); };
            fault.begin(watched);
            while (!watched.stop() && watched.mac.now() - since < fault.seconds) {
                watched.watch(60, 2);
            }
            const double took = watched.mac.now() - since;
            EXPECT_EQ(watched.health.findings().size(), 1U)
                << fault.name << ", seed " << i << ": " << watched.told();
            EXPECT_TRUE(watched.tells(fault.kind)) << fault.name << ", seed " << i;
            longest = std::max(longest, took);
            sum += took;
        }
        std::printf("%s: found %d times, %.0f s on average, at most %.0f s\n", fault.name, times,
                    sum / times, longest);
    }
}

// Whoever wrote the record: no alarm, nothing that could not be saved again; and no key for ever.
TEST(HealthTest, BelievesNoRecordThatCannotBe) {
    for (unsigned seed = 0; seed < 12; ++seed) {
        Dice dice(seed);
        const auto odd = [&dice](int it) {
            return dice.oneIn(9) ? int(dice.pick({-1, INT_MAX, INT_MIN})) : it;
        };
        const auto spoil = [&dice](auto&... its) {
            ((its = dice.oneIn(9) ? dice.pick({kNaN, kInfinity, -1, 1e300, -1e12}) : its), ...);
        };
        HealthRecord record = learned();
        for (FanHabit& it : record.fans) {
            it = {odd(it.id), it.share, odd(it.phases), it.ceiling, it.ceilingDay};
            spoil(it.share, it.ceiling.count, it.ceiling.since.secondsSinceReference);
        }
        for (SensorHabit& it : record.sensors) {
            auto& [pairs, xx, xy, yy] = it.response;
            spoil(pairs, xx, xy, yy, it.observed, it.step, it.calmest, it.loneliest);
        }
        HeatTrendRecord& trend = record.trend;
        trend.days = {{odd(8000), 0.5, 0.7, 40}};
        trend.baseline = {odd(8000), 0.5, 0.7, 40};
        spoil(trend.days[0].toAir, trend.baseline->watts, trend.toAir.count, trend.toSink.count);
        WatchedMac watched(simulator::intelMac(2), seed, record);
        watched.watch(1200, 12);
        EXPECT_EQ(watched.told(), "") << "seed " << seed;
        EXPECT_EQ(decodeJson<HealthRecord>(encodeJson(watched.health.record())),
                  watched.health.record());
        watched.mac.removeKey("TC0P");
        watched.mac.sleep(31 * kDay);
        watched.watch(600, 12);
        EXPECT_EQ(watched.told(), "") << "seed " << seed;
    }
}

// Daily values whose errors last for days, in a machine that is off on three days in ten.
TEST(HealthTest, SeasonsAndNoisyDaysAreNoTrend) {
    constexpr double kWatts = 40;
    for (const char* sensors : {"sink=TC0P room=TA0V ", "sink=TC0P "}) {
        int told = 0;
        const int years = scaled(40, 1000);
        for (int year = 0; year < years; ++year) {
            std::mt19937 random(static_cast<unsigned>(year));
            std::normal_distribution<double> error(0, 1.5 * std::sqrt(1 - 0.25));
            HeatTrendRecord begun;
            begun.sensors = sensors;
            HeatTrend trend(begun);
            const bool roomKnown = begun.sensors.find("room=") != std::string::npos;
            const double season = 6.283 * static_cast<double>(random() % 365) / 365;
            double sink = error(random), air = error(random);
            bool found = false;
            for (int day = 0; day < 28 + 365; ++day) {
                sink = 0.5 * sink + error(random);
                air = 0.5 * air + error(random);
                const double room = roomKnown ? 0 : 5 * std::sin(season + day * 6.283 / 365);
                if (random() % 10 >= 3) {
                    trend.addDay(
                        {8000 + day, (20 + sink) / kWatts, (30 + air + room) / kWatts, kWatts});
                }
                found = found || !trend.findings().empty();
            }
            told += found ? 1 : 0;
        }
        EXPECT_LE(told, years / 100) << sensors;
        std::printf("%s: %d false in %d machine-years\n", sensors, told, years);
    }
}

// Months of an office computer, whose heat follows another law than the trend assumes; from day 60
// on it changes over so many days. Kelvin at 30 W.
struct Ageing {
    const char* name;
    double toSink, toAir;
    int days;
    Kind expected;
    bool room = true;
};
struct Months {
    std::mt19937 random;
    HeatTrend trend;
    Ageing ageing;

    double noise(double sigma) { return std::normal_distribution<double>(0, sigma)(random); }
    // Twelve loads of four minutes, ten minutes apart. The fans turn at a share of what is asked,
    // and are seen to turn at another.
    void day(int number, double turns = 1, double seen = 1) {
        const double aged = std::clamp((number - 60.0) / ageing.days, 0.0, 1.0);
        const double room = 22 + 4 * std::sin(number / 58.0) + noise(1.5);
        for (int load = 0; load < 12; ++load) {
            const double watts = 12 + 30 * std::uniform_real_distribution<double>()(random);
            double flow = 0.3, sink = 0, die = 0;
            for (int round = 0; round < 60; ++round) {
                const double law = 0.2 + 0.8 * std::pow(flow * turns, 0.85);
                sink = room + watts * (0.55 + aged * ageing.toAir / 30) / law;
                die = sink + watts * (0.6 + aged * ageing.toSink / 30);
                flow += 0.2 * (std::clamp((die - 50) / 40, 0.3, 1.0) - flow);
            }
            for (int i = 0; i < 20; ++i) {
                HeatSample sample;
                sample.date = Date{number * kDay + load * 700 + i * 12.0};
                sample.die = die + noise(0.3);
                sample.sink = sink + noise(0.2);
                sample.room = ageing.room ? std::optional(room + noise(0.3)) : std::nullopt;
                sample.watts = watts * (1 + noise(0.03));
                sample.flow = flow * seen;
                sample.asked = flow;
                sample.sensors = ageing.room ? "sink=TC0P room=TA0V " : "sink=TC0P ";
                trend.add(sample);
            }
        }
    }
};

TEST(HealthTest, TellsPasteFromDustAndBeginsAnewWhenCleaned) {
    for (const Ageing& ageing :
         {Ageing{"paste adds 8 K in two weeks", 8, 0, 14, Kind::hotterToSink},
          Ageing{"dust adds 12 K in ten weeks", 0, 12, 70, Kind::hotterToAir},
          Ageing{"dust adds 25 K in ten weeks, room unknown", 0, 25, 70, Kind::hotterToAir,
                 false}}) {
        int longest = 0;
        const int times = scaled(1, 50);
        for (int i = 0; i < times; ++i) {
            Months months{std::mt19937(static_cast<unsigned>(i)), HeatTrend(), ageing};
            int day = 0;
            for (; day < 260 && months.trend.findings().empty(); ++day) {
                months.day(day);
            }
            EXPECT_GE(day, 60) << ageing.name << ", seed " << i;
            const auto found = months.trend.findings();
            ASSERT_EQ(found.size(), 1U) << ageing.name << ", seed " << i;
            EXPECT_EQ(found[0].kind, ageing.expected) << ageing.name << ", seed " << i;
            EXPECT_EQ(found[0].roomUnknown, !ageing.room);
            longest = std::max(longest, day - 60);
            months.trend.restart();
            for (const int end = day + 70; ageing.days == 14 && day < end; ++day) {
                months.day(day);
                ASSERT_TRUE(months.trend.findings().empty()) << "seed " << i;
            }
            months.day(day, 1, 0);
            EXPECT_EQ(months.trend.turning().value_or(true), true) << ageing.name << ", " << i;
            months.day(day + 1, 0, 0);
            EXPECT_EQ(months.trend.turning().value_or(false), false) << ageing.name << ", " << i;
            EXPECT_TRUE(ageing.days != 14 || months.trend.turning()) << "seed " << i;
        }
        std::printf("%s: found %d times, after %d days at most\n", ageing.name, times, longest);
    }
}

TEST(HealthTest, TellsStoppedFromSilentOffAndUnreadable) {
    FanHealth health;
    double now = 0;
    const auto run = [&](std::optional<double> target, std::optional<double> first,
                         std::optional<double> second) {
        for (int i = 0; i < 60; ++i) {
            Snapshot snapshot;
            snapshot.date = kStart + ++now;
            snapshot.fans = {{0, first, {}, 6000, {}}, {1, second, {}, 6000, {}}};
            health.add(snapshot, target ? std::vector<FanTarget>{{0, *target}, {1, *target}}
                                        : std::vector<FanTarget>());
        }
        std::string all = std::to_string(int(health.state(0)));
        for (const HealthFinding& finding : health.findings()) {
            all += " " + asDiagnostic(finding, kStart + now).id;
        }
        return all;
    };
    EXPECT_EQ(run(0, 0, 0), "1");           // rightly off
    EXPECT_EQ(run({}, 3000, 3000), "0");    // unreadable
    EXPECT_EQ(run(3000, 3000, 3000), "3");  // steady
    EXPECT_EQ(run(3000, 0, 3000), "3 fan-stopped:0");
    EXPECT_EQ(run({}, 0, 3000), "0 fan-stopped:0");  // nothing has disproved it
    EXPECT_EQ(run(3000, 2900, 3000), "3");
    EXPECT_EQ(run(3000, 0, 0), "3 fan-silent:0 fan-silent:1");  // both in one sample
    health.noteTurning(false);                                  // but it gets hot
    EXPECT_EQ(run(3000, 0, 0), "3 fan-stopped:0 fan-stopped:1");
    EXPECT_EQ(run(3000, 3000, 2200), "3 fan-slow:1");
    EXPECT_EQ(text(health.findings()[0]), "风扇 2 转速偏低：应为 3000 转/分，实测 2200 转/分");

    DiagnosticReport report;
    report.state = DiagnosticState::stable;
    report.findings.resize(2);
    report.findings[0].severity = DiagnosticSeverity::critical;
    addHealth(health.findings(), report);
    EXPECT_EQ(report.findings[1].kind, DiagnosticKind::health);
    EXPECT_EQ(report.attentionCount, 1);
    EXPECT_EQ(report.state, DiagnosticState::attention);
}

// Of five sensors one, or two together, stand still at a value while the others move.
TEST(HealthTest, AnUnhealthySensorIsUnknownAndHidesNothing) {
    struct Case {
        double at, other;
        SensorState state;
        JudgedTemperature expected;
        std::size_t together = 1;
    };
    constexpr double kParked = 127;
    for (const Case& it : {Case{40, 60, SensorState::frozen, {60.0, true}},
                           Case{70, 60, SensorState::frozen, {70.0, false}},
                           Case{40, kNaN, SensorState::frozen, {{}, true}},
                           Case{90, kNaN, SensorState::frozen, {90.0, false}},
                           Case{70, 60, SensorState::live, {70.0, true}, 2},
                           Case{kParked, 60, SensorState::parked, {60.0, true}},
                           Case{kParked, kNaN, SensorState::parked, {{}, true}}}) {
        SensorHealth health;
        Dice dice(1);
        double now = 0, celsius = 0;
        const auto add = [&](std::size_t still) {
            Snapshot snapshot;
            snapshot.date = kStart + (now += 5);
            celsius = 65 + 30 * std::sin(now / 300);
            for (const char* key : {"TC0P", "TM0P", "Ts0P", "Th1H", "TB0T"}) {
                const bool stands = snapshot.sensors.size() < still;
                snapshot.sensors.push_back(
                    {key, key, stands ? it.at : celsius + 0.01 * dice.upTo(9)});
            }
            health.add(snapshot);
        };
        while (now < SensorHealth::kLearningSeconds + 1000 ||
               (it.at < kParked && std::abs(celsius - it.at) > 0.5)) {
            add(0);
        }
        for (int i = 0; i < 60; ++i) {
            add(it.together);
        }
        EXPECT_EQ(health.state("TC0P"), it.state) << it.at;
        Snapshot snapshot;
        snapshot.sensors = {{"TC0P", "", it.at}, {"TC1P", "", it.other}};
        EXPECT_EQ(health.hottest(snapshot, SensorCategory::cpu), it.expected) << it.at;
        for (int i = 0; i < 60; ++i) {
            add(0);
        }
        EXPECT_EQ(health.state("TC0P"), SensorState::live) << it.at;
        EXPECT_TRUE(health.findings().empty());
    }
}

}  // namespace
}  // namespace ferovane::testing
