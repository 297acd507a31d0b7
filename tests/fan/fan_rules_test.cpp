// The code beside the rules written a second time: on random machines, under random errors, drifts,
// clocks and rivals, every outcome, every message and every call must be the same.
//
//     FEROVANE_FAN_SEED=4711 fan_tests --gtest_filter='FanRules*'     begins with another case
#include "tests/fan/fan_rules.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <iterator>

#include "core/fan/curve_policy.h"
#include "core/fan/lease_obstacles.h"

namespace ferovane {
namespace {

using testing::FanWorld;
using testing::Fault;
using testing::kInfinity;
using testing::kNaN;
using testing::WorldFan;

constexpr std::initializer_list<CurveSensor> kSensors{CurveSensor::cpu, CurveSensor::gpu,
                                                      CurveSensor::hottest};

// Cheap to make, since every call of a world has dice of its own.
class CallDice {
public:
    explicit CallDice(std::uint64_t seed) : state_(seed) {}

    int below(int count) {
        state_ += 0x9E3779B97F4A7C15;
        std::uint64_t mixed = (state_ ^ (state_ >> 30)) * 0xBF58476D1CE4E5B9;
        mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EB;
        return static_cast<int>((mixed >> 33) % static_cast<std::uint64_t>(count));
    }
    bool oneIn(int count) { return below(count) == 0; }
    template <class T>
    T pick(std::initializer_list<T> values) {
        return values.begin()[below(static_cast<int>(values.size()))];
    }
    template <class T>
    T& oneOf(std::vector<T>& values) {
        return values[static_cast<std::size_t>(below(static_cast<int>(values.size())))];
    }

private:
    std::uint64_t state_;
};

void changeTemperatures(Snapshot& snapshot, CallDice& dice) {
    const auto next = [&](double celsius, double limit) {
        celsius += dice.pick({0.0, 0.25, -0.25, 0.5, -0.5, 1.0, -3.0, 10.0, -20.0});
        return dice.oneIn(12) ? dice.pick({limit, limit - 0.25, 20.0, 75.0, 90.0})
                              : std::fmin(std::fmax(celsius, 29.75), limit - 2);
    };
    const double cpu = snapshot.sensors.empty() ? 50 : snapshot.sensors.front().celsius;
    snapshot.sensors = {{"TC0P", "", next(std::isfinite(cpu) ? cpu : 60, 92)}};
    if (!dice.oneIn(3)) {
        snapshot.sensors.push_back({"TG0P", "", next(60, 88)});
        snapshot.sensors.push_back({"TC1C", "", next(50, 92)});
        snapshot.sensors.push_back({"TH0A", "", next(50, 75)});
    }
    if (dice.oneIn(15)) {
        SensorReading& odd = dice.oneOf(snapshot.sensors);
        odd.celsius = dice.pick({kNaN, kInfinity, -kInfinity, 0.0});
        odd.key = dice.pick<const char*>({"TC0P", "TG0P", "Tp0P"});
    }
    snapshot.thermalState = dice.oneIn(20) ? dice.below(5) : 0;
}

Fault befall(FanWorld& world, const std::string& call, CallDice dice, int rarity, bool apple) {
    if (call == "sample" && !dice.oneIn(3)) {
        changeTemperatures(world.snapshot, dice);
    }
    if (rarity == 0 || !dice.oneIn(rarity)) {
        return Fault::none;
    }
    using Value = std::optional<double>;
    WorldFan& fan = dice.oneOf(world.fan);
    const int what = dice.below(15);
    const auto change = [&](Value& value, int when, std::initializer_list<Value> values) {
        value = what == when ? dice.pick(values) : value;
    };
    fan.listed = fan.listed != (what == 0);
    const std::string key =
        dice.pick<std::string>({"F0Tg", "F1Tg", "F0Md", "F1Md", "F0md", "Ftst"});
    if (what <= 3 && what > 0 && world.unwritable.erase(key) == 0) {
        world.unwritable.insert(key);
    }
    change(fan.mode, 4, {0, 1, 2, 3});
    change(fan.mode, 5, {1, kNaN, std::nullopt});
    change(fan.target, 6, {kNaN, kInfinity, std::nullopt});
    change(world.unlock, 7, {0, 1, -0.0, std::nullopt});
    const double drift = dice.pick({1.75, 2.0, 2.75, 3.0, 40.0});
    for (const int drifts : {8, 9}) {
        const double target = fan.target.value_or(2000);
        change(fan.target, drifts, {target + drift, target - drift});
    }
    world.cancelled = world.cancelled || what == 10;
    world.clock += what == 11 ? dice.pick({0.5, 1.0, 4.0, 300.0, -0.5, -2000.0, kNaN}) : 0;
    const Fault foreign = apple ? Fault::refused : Fault::unknown;
    return what == 12   ? Fault::refused
           : what == 13 ? dice.pick({Fault::unexpected, foreign})
           : what == 14 ? dice.pick({Fault::unconfirmed, Fault::lost})
                        : Fault::none;
}

// Fit for a lease, but for something odd in one value of so many.
void furnish(WorldFan& fan, CallDice& dice, int oddness) {
    using Value = std::optional<double>;
    const double low = dice.pick({2000.0, 1000.0, 1.0});
    const double high = low + dice.pick({3000.0, 4000.0, 2997.0, 5200.0});
    const auto draw = [&](std::initializer_list<Value> usual, std::initializer_list<Value> odd) {
        return dice.oneIn(oddness) ? dice.pick(odd) : dice.pick(usual);
    };
    fan.mode = draw({0, 3}, {1, 2, -1, kNaN, std::nullopt});
    fan.maximum = draw({high}, {12000, 12001, 0, -1, kNaN, kInfinity, low, low - 1, std::nullopt});
    fan.minimum = draw({low}, {0, -0.0, -1, kNaN, -kInfinity, high, high + 1, std::nullopt});
    fan.target = draw({low, high, low + 500, fan.minimum},
                      {low - 0.25, high + 0.25, kNaN, kInfinity, -kInfinity, std::nullopt});
    fan.controllable = !dice.oneIn(oddness);
    fan.listed = !dice.oneIn(oddness);
}

struct Case {
    bool apple, cooling;
    int rarity;  // of what befalls a call; 0 for nothing
    double duration;
    FanCurve curve;
};

Case furnish(FanWorld& world, std::uint64_t seed) {
    CallDice dice(seed * 1000003);
    Case it;
    it.apple = dice.oneIn(2);
    it.cooling = dice.oneIn(2);
    it.rarity = dice.pick({0, 300, 60, 60, 60, 15, 6});
    const int oddness = dice.pick({8, 60, 300, 300});
    world.fan.resize(static_cast<std::size_t>(1 + dice.below(3)));
    for (WorldFan& fan : world.fan) {
        furnish(fan, dice, oddness);
        fan.modeName = it.apple && dice.oneIn(4) ? "md" : "Md";
    }
    if (it.apple) {
        world.unlock = dice.pick<std::optional<double>>({0, 0, 0, 0, 0, 0, -0.0, 1, std::nullopt});
        world.unwritable = dice.oneIn(5) ? std::set<std::string>{"Ftst"} : std::set<std::string>{};
        world.locked = dice.oneIn(2);
        world.refusalsAfterUnlock = dice.pick({0, 1, 2, 5, 1000});
        world.retrySeconds = dice.pick({0.125, 1.0, 0.0625, 5.0, 0.75});
    }
    world.cancelled = dice.oneIn(40);
    changeTemperatures(world.snapshot, dice);
    it.duration = dice.oneIn(12)  ? dice.pick({300.0001, 1800.25, 0.0, -1.0, kNaN, kInfinity})
                  : dice.oneIn(8) ? (it.cooling ? 300 : 1800)
                                  : dice.pick({5.0, 2.5, 7.75, 12.0, 1.0, 25.0});
    world.roundSeconds = it.duration > 30 ? 60 : dice.pick({1.0, 2.0, 0.75});
    it.curve.sensor = dice.pick(kSensors);
    it.curve.points = {{30.0 + dice.below(10), 5.0 * dice.below(5)}, {55, 40}, {70, 70}, {86, 100}};
    it.curve.points.resize(dice.oneIn(60) ? 1 : 4);
    if (dice.oneIn(2)) {
        it.curve.points = {{30, 0}, {80, 100}};
    }
    const int order = dice.below(10);
    world.editReadings = [order](std::vector<FanReading>& fans) {
        if (order == 0) {
            fans = {fans.rbegin(), fans.rend()};
        } else if (order == 1 && !fans.empty()) {
            fans.push_back(fans.front());
        }
    };
    world.befall = [&world, it, seed](const std::string& call) {
        const CallDice own(seed * 7919 + static_cast<std::uint64_t>(world.calls) * 104729);
        return befall(world, call, own, it.rarity, it.apple);
    };
    return it;
}

template <class Act>
std::string outcomeOf(Act act) {
    try {
        act();
        return "returns";
    } catch (const FanRefusal& error) {
        return "refuses: " + error.message();
    } catch (const ScopeError& error) {
        return error.message();
    } catch (const std::exception& error) {
        return std::string("unexpected: ") + error.what();
    } catch (int) {
        return "unknown";
    }
}

// One machine twice: the code has one of them, the rules the other.
struct Twins {
    std::uint64_t seed;
    FanWorld code, rule;
    Case it;
    AppleSiliconFanControl codeHandOver = code.handOver();
    rules::HandOver ruleHandOver{rule};

    explicit Twins(std::uint64_t number) : seed(number), it(furnish(code, seed)) {
        furnish(rule, seed);
        if (it.apple) {
            code.switchFan = [this](int fan, bool on) { codeHandOver.setManual(fan, on); };
            rule.switchFan = [this](int fan, bool on) { ruleHandOver.setManual(fan, on); };
        }
    }

    // What the code said, after the rules have said the same.
    template <class Code, class Rule>
    std::string expectSame(Code codeAct, Rule ruleAct) {
        const std::string told = outcomeOf(codeAct);
        EXPECT_EQ(told, outcomeOf(ruleAct)) << "seed " << seed;
        const auto [here, there] = std::mismatch(code.trace.begin(), code.trace.end(),
                                                 rule.trace.begin(), rule.trace.end());
        const auto common = static_cast<std::size_t>(here - code.trace.begin());
        const std::size_t from = common > 200 ? common - 200 : 0;
        EXPECT_TRUE(code.trace == rule.trace)
            << "seed " << seed << ", alike until …" << code.trace.substr(from, common - from)
            << "\n  code: " << code.trace.substr(common, 200)
            << "\n  rule: " << rule.trace.substr(common, 200);
        return told;
    }
};

class FanRulesTest : public ::testing::Test {
protected:
    // Until one fails.
    template <class Act>
    static void forSeeds(int count, Act act) {
        const char* text = std::getenv("FEROVANE_FAN_SEED");
        std::uint64_t seed = text == nullptr ? 1 : std::strtoull(text, nullptr, 10);
        for (; count > 0 && !HasFailure(); --count) {
            act(seed++);
        }
    }
};

TEST_F(FanRulesTest, LeasesDoAndSayWhatTheRulesSay) {
    int leases = 0, refusals = 0;
    forSeeds(8000, [&](std::uint64_t seed) {
        Twins twins(seed);
        const auto& [apple, cooling, rarity, duration, curve] = twins.it;
        const std::string told = twins.expectSame(
            [&] { cooling ? twins.code.cool(duration) : twins.code.follow(curve, duration); },
            [&] {
                cooling ? rules::cool(twins.rule, duration)
                        : rules::follow(twins.rule, curve, duration);
            });
        const bool untouched = twins.code.writes.empty();
        leases += told == "returns" && !untouched;
        refusals += told != "returns" && untouched;
    });
    EXPECT_TRUE(HasFailure() || (leases > 1500 && refusals > 1000)) << leases << " " << refusals;
}

TEST_F(FanRulesTest, FansAreHandedOverAsTheRulesSay) {
    forSeeds(6000, [](std::uint64_t seed) {
        Twins twins(seed);
        CallDice dice(seed);
        for (int step = twins.it.apple ? 0 : 12; step < 12; ++step) {
            const int fan = dice.oneIn(10) ? dice.pick({-1, 9, 10}) : dice.below(3);
            const bool enabled = dice.oneIn(2);
            twins.expectSame([&] { twins.codeHandOver.setManual(fan, enabled); },
                             [&] { twins.ruleHandOver.setManual(fan, enabled); });
        }
    });
}

// What is said of a lease beforehand is what it then says.
TEST_F(FanRulesTest, ForecastsComeTrue) {
    int refused = 0, locked = 0, starts = 0;
    forSeeds(4000, [&](std::uint64_t seed) {
        Twins twins(seed);
        FanWorld &asked = twins.code, &world = twins.rule;
        asked.befall = world.befall = [](const std::string&) { return Fault::none; };
        asked.editReadings = world.editReadings = [](auto&) {};
        world.cancelled = false;
        const auto number = [&](const std::string& key) { return rules::tryRead(asked, key); };
        const LeaseForecast forecast =
            LeaseObstacles::forecast({asked, number, twins.it.apple, "锁"}, twins.it.curve,
                                     asked.snapshot)[twins.it.cooling ? 0 : 1];
        const std::string told = outcomeOf([&] {
            twins.it.cooling ? rules::cool(world, 1) : rules::follow(world, twins.it.curve, 1);
        });
        const std::string message = forecast.message.value_or("returns");
        const bool foretold = forecast.certain && told.ends_with(message);
        // A lock without a key to it shows itself only when a fan is taken.
        EXPECT_TRUE(foretold || told == "returns" || world.locked) << "seed " << seed << told;
        EXPECT_TRUE(foretold || !forecast.certain || !forecast.message) << "seed " << seed << told;
        EXPECT_EQ(forecast.message.has_value(),
                  std::any_of(forecast.obstacles.begin(), forecast.obstacles.end(),
                              [&](const auto& it) { return it.message == message; }))
            << "seed " << seed;
        EXPECT_EQ(asked.writes, "");
        ++(!forecast.message ? starts : forecast.certain ? refused : locked);
    });
    EXPECT_TRUE(HasFailure() || (refused > 500 && locked > 200 && starts > 500));
}

TEST_F(FanRulesTest, CurvesAreJudgedAndFollowedAsTheRulesSay) {
    forSeeds(20000, [](std::uint64_t seed) {
        CallDice dice(seed);
        FanCurve curve;
        double celsius = dice.pick({30.0, 30.0, 29.75, 50.0}), percent = 0;
        for (int count = dice.below(11); count > 0; --count) {
            curve.points.push_back({celsius, percent});
            celsius += dice.pick({2.0, 4.0, 8.0, 12.5, dice.pick({2.0, 1.75, -4.0, 40.0})});
            percent += dice.pick({0.0, 10.0, 17.5, dice.pick({5.0, -5.0, 90.0})});
            percent = count == 2 && !dice.oneIn(5) ? 100 : percent;
            celsius = count == 2 && !dice.oneIn(5) ? dice.pick({90.0, 88.0, 90.25}) : celsius;
        }
        if (!curve.points.empty() && dice.oneIn(5)) {
            CurvePoint& odd = dice.oneOf(curve.points);
            double& member = dice.oneIn(2) ? odd.temperature : odd.percent;
            member = dice.pick({kInfinity, -0.25, 100.25, 100.0, 99.0, 29.0, 0.0});
        }
        EXPECT_EQ(outcomeOf([&] { curve.validate(); }),
                  outcomeOf([&] { rules::validate(curve.points); }))
            << "seed " << seed;
        const double at[] = {20.0 + 0.25 * dice.below(320), kNaN, kInfinity, -kInfinity,
                             curve.points.empty() ? 0 : curve.points.back().temperature};
        for (const double t : at) {
            const double expected = rules::percent(curve.points, t);
            EXPECT_TRUE(!std::isfinite(expected) || std::abs(curve.percent(t) - expected) < 1e-9)
                << "seed " << seed << " at " << t << ": " << curve.percent(t) << " " << expected;
        }
        const double held = dice.oneIn(9) ? dice.pick({kNaN, kInfinity, -kInfinity}) : percent - 20;
        EXPECT_EQ(FanCurve::manual(held), rules::manual(held)) << "seed " << seed;
    });
}

TEST_F(FanRulesTest, HotMachinesAreKnownAsTheRulesSay) {
    forSeeds(5000, [](std::uint64_t seed) {
        CallDice dice(seed);
        Snapshot snapshot;
        changeTemperatures(snapshot, dice);
        for (int fan = dice.below(3); fan > 0; --fan) {
            using Value = std::optional<double>;
            const auto maybe = [&](double value) {
                return dice.oneIn(12) ? dice.pick<Value>({std::nullopt, kNaN, kInfinity, -1, 0})
                                      : Value(value);
            };
            const double low = dice.pick({0.0, 1000.0});
            const Value rpm = maybe(low + dice.pick({-50.0, 0.0, 100.0, 200.0, 200.25, 2050.0}));
            snapshot.fans.push_back({fan, rpm, maybe(low), maybe(low + 2000), {}, true});
            const auto& [id, speed, least, most, manual, controllable] = snapshot.fans.back();
            if (speed && least && most) {
                EXPECT_EQ(CurvePolicy::percent(*speed, *least, *most),
                          rules::percent(*speed, *least, *most))
                    << seed;
            }
        }
        EXPECT_EQ(CurvePolicy::requiresMaximum(snapshot), rules::isHot(snapshot)) << seed;
        EXPECT_EQ(CurvePolicy::highTemperatureWithLowFanSpeed(snapshot),
                  rules::isHotAndSlow(snapshot))
            << seed;
        for (const CurveSensor sensor : kSensors) {
            EXPECT_EQ(temperature(sensor, snapshot), rules::followed(sensor, snapshot)) << seed;
        }
    });
}

}  // namespace
}  // namespace ferovane
