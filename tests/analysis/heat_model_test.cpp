// The heat model and what it answers, beside simulated Macs: their heat has more nodes than the
// model, another law of flow, and a room that drifts.
//
// FEROVANE_HEAT_HOURS=N: days of N hours on every machine with fans, instead of short ones on one.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/analysis/curve_what_if.h"
#include "core/fan/curve_lease.h"
#include "core/fan/fan_keys.h"
#include "core/hardware/smc.h"
#include "core/model/scope_error.h"
#include "simulator/machine/simulated_mac.h"
#include "tests/support/dice.h"

namespace ferovane::testing {
namespace {

using simulator::Property;

const char* const kScale = std::getenv("FEROVANE_HEAT_HOURS");
const double kHours = kScale != nullptr ? std::atof(kScale) : 1.05;

// How a machine lives.
struct Life {
    std::string machine = "MacBookPro11,4";
    std::optional<FanCurve> curve = {};  // absent: the system's own control
    double leakage = 0;                  // percent of load more per K, in no record
    double graphics = 0;                 // percent every other ten minutes, in no record either
};

FanRange rangeOf(const std::string& machine) {
    simulator::SimulatedMac mac = simulator::builtInMac(machine);
    FanRange range;
    for (int fan = 0; fan < mac.fanCount(); ++fan) {
        range.minimum += mac.fanMinimum(fan) / mac.fanCount();
        range.maximum += mac.fanMaximum(fan) / mac.fanCount();
    }
    return range;
}

// A day, read every two seconds. The same day has the same work, whatever the fans do.
RecordedDay record(const Life& life, int day) {
    simulator::SimulatedMac mac = simulator::builtInMac(life.machine);
    const auto attached = mac.attach();
    SMC smc({[&] { return mac.now(); }, [&](double time) { mac.advance(time); }, false});
    Dice dice(unsigned(day) + 1);
    std::vector<double> work;
    while (double(work.size()) < kHours * 1800) {
        const double load = dice.pick({3, 8, 12, 20, 28, 45, 65, 80, 100});
        for (int left = 30 + dice.upTo(270); left > 0; --left) {
            work.push_back(std::clamp(load + dice.upTo(16) - 8, 0.0, 100.0));
        }
    }
    double load = 0;
    const auto pass = [&](double seconds) {
        const auto step = std::size_t(mac.now() / 2);
        load = work[step % work.size()];
        mac.set(Property::kLoad,
                std::clamp(load + life.leakage * (mac.dieTemperature() - 50), 0.0, 100.0));
        mac.set(Property::kGraphicsLoad, step / 300 % 2 == 0 ? 0 : life.graphics);
        mac.set(Property::kAmbient, 19 + 3 * day % 8 + std::sin(day + mac.now() / 4600));
        mac.advance(seconds);
    };
    const auto read = [&](double celsius) {
        return std::round(celsius * 4 + (dice.upTo(30) - 15) / 10.0) / 4;
    };
    std::vector<RecordedSample> samples;
    const auto sample = [&] {
        Snapshot snapshot;
        snapshot.date = Date{7e8 + mac.now()};
        snapshot.cpuUsage = load;
        snapshot.sensors = {{"TC0C", "", read(mac.dieTemperature())},
                            {"Th1H", "", read(mac.heatSinkTemperature())}};
        snapshot.additionalSensors.emplace();
        for (const char* key : {"PCPT", "PC0R", "PSTR"}) {
            if (const auto watts = mac.number(key); watts && life.leakage == 0) {
                snapshot.additionalSensors->push_back({key, "", HardwareSensorKind::power, *watts});
            }
        }
        snapshot.fans = smc.fans();
        samples.push_back(recordedSample(snapshot, CurveSensor::hottest));
        return snapshot;
    };
    pass(0);
    mac.settle();
    const auto over = [&] { return mac.now() >= kHours * 3600; };
    while (!over()) {
        if (!life.curve) {
            sample();
            pass(2);
            continue;
        }
        CurveLease::run(
            smc, *life.curve, FanLimits::kLeaseSeconds, sample, [&] { return mac.now(); }, over,
            [&](double) { pass(2); }, [](const FanControlProgress&) {}, [] {});
    }
    return RecordedDay::from(samples);
}

std::vector<RecordedDay> recorded(const Life& life) {
    return {record(life, 1), record(life, 2), record(life, 3), record(life, 4)};
}

std::string thrown(const std::function<void()>& act) {
    try {
        act();
    } catch (const ScopeError& error) {
        return error.message();
    }
    return "";
}

TEST(HeatModelTest, ForetellsCurvesAndDaysThatItHasNotSeen) {
    std::vector<std::string> machines{"MacBookPro11,4"};
    if (kScale != nullptr) {
        machines.insert(machines.end(), {"MacBookPro16,1", "iMac18,3", "MacPro7,1", "M1Pro"});
    }
    for (const std::string& machine : machines) {
        for (const bool leased : {false, true}) {
            const auto usual = leased ? std::optional(FanCurve::balanced()) : std::nullopt;
            const HeatFit fit = HeatFit::of(recorded({machine, usual}), rangeOf(machine));
            ASSERT_FALSE(fit.refusal) << machine << ": " << title(*fit.refusal);
            const std::vector<RecordedDay> day{record({machine, usual}, 7)};
            for (const FanCurve& curve : {FanCurve::quiet(), FanCurve::performance()}) {
                const RecordedDay truth = record({machine, curve}, 7);
                const CurveRun told = rerun(fit.model, day, curve);
                const std::size_t steps = std::min(told.die.size(), truth.steps.size());
                ASSERT_GT(double(steps), kHours * 1790);
                double squares = 0, celsius = 0, rpm = 0, toldRpm = 0;
                for (std::size_t i = 0; i < steps; ++i) {
                    squares += std::pow(told.die[i] - truth.steps[i].die, 2) / double(steps);
                    celsius += truth.steps[i].die / double(steps);
                    rpm += truth.steps[i].rpm / double(steps);
                    toldRpm += told.rpm[i] / double(steps);
                }
                const CurveWhatIf answer = whatIf(fit, day, usual, curve);
                const auto& [change, low, high] = answer.differences[0];
                const double really = celsius - answer.before[0];
                std::printf(
                    "%-15s %s by %s: %.2f K rms, rpm %+.1f %%, mean %+.1f K (%+.1f to "
                    "%+.1f), really %+.1f K\n",
                    machine.c_str(), leased ? "balanced" : "automatic",
                    fit.model.fromLoad ? "load" : "watts", std::sqrt(squares),
                    100 * (toldRpm / rpm - 1), change, low, high, really);
                EXPECT_LE(std::sqrt(squares), 2);
                EXPECT_NEAR(toldRpm / rpm, 1, 0.05);
                EXPECT_TRUE(really > low - 0.3 && really < high + 0.3);
            }
        }
    }
}

TEST(HeatModelTest, RefusesWhatWouldMislead) {
    const FanRange range = rangeOf(Life().machine);
    const std::vector<RecordedDay> good = recorded({});
    using R = HeatRefusal;
    const auto refuses = [&](const char* what, std::vector<RecordedDay> days, R one, R other,
                             FanRange rated) {
        const HeatFit fit = HeatFit::of(days, rated);
        ASSERT_TRUE(fit.refusal) << what;
        EXPECT_TRUE(fit.refusal == one || fit.refusal == other) << what << title(*fit.refusal);
        EXPECT_EQ(thrown([&] { whatIf(fit, good, {}, FanCurve::quiet()); }), title(*fit.refusal));
    };
    refuses("no rating", good, R::fanRange, R::fanRange, {2000, 2000});
    refuses("three days", {good[0], good[1], good[2]}, R::tooFewDays, R::tooFewDays, range);
    refuses("graphics", recorded({Life().machine, {}, 0, 100}), R::fitInvalid, R::notAccurate,
            range);
    if (kScale != nullptr) {
        const FanCurve fixed{{{30, 40}, {86, 40}, {90, 100}}, CurveSensor::hottest};
        refuses("fixed", recorded({Life().machine, fixed}), R::fanNotVaried, R::fanNotVaried,
                range);
        refuses("leakage", recorded({Life().machine, FanCurve::balanced(), 0.9}), R::fanUnclear,
                R::notAccurate, range);
    }
    // What befalls each step of each day, from 0.
    using Change = void (*)(RecordedDay::Step & step, std::size_t day, std::size_t i);
    const struct {
        const char* what;
        Change change;
        R one, other;
    } changes[] = {
        {"fans never varied", [](auto& it, auto, auto) { it.rpm = 3000; }, R::fanNotVaried, {}},
        {"constant power",
         [](auto& it, auto, auto) { it.watts = it.load = 20; },
         R::heatNotVaried,
         {}},
        {"frozen sink", [](auto& it, auto, auto i) { it.sink = 31 + double(i % 2); }, R::fitInvalid,
         R::notAccurate},
        {"sensors mixed up",
         [](auto& it, auto, auto) { std::swap(it.sink, it.die); },
         R::fitInvalid,
         {}},
        {"another fan", [](auto& it, auto, auto i) { it.rpm = i / 200 % 2 == 0 ? 2000 : 5000; },
         R::fanUnclear, R::notAccurate},
        {"dried paste",
         [](auto& it, auto day, auto) { it.die += day == 3 ? 8 : 0; },
         R::notAccurate,
         {}},
    };
    for (const auto& [what, change, one, other] : changes) {
        std::vector<RecordedDay> days = good;
        for (std::size_t day = 0; day < days.size(); ++day) {
            for (std::size_t i = 0; i < days[day].steps.size(); ++i) {
                change(days[day].steps[i], day, i);
            }
        }
        refuses(what, days, one, other, range);
    }
}

TEST(HeatModelTest, ProposesTheQuietestCurveThatKeepsAWish) {
    const Life life{"MacPro7,1"};
    const HeatFit fit = HeatFit::of(recorded(life), rangeOf(life.machine));
    const std::vector<RecordedDay> days{record(life, 7)};
    FanCurve curve = quietestCurve(fit, days, 88, CurveSensor::cpu);
    EXPECT_EQ(thrown([&] { curve.validate(); }), "");
    const RecordedDay truth = record({life.machine, curve}, 7);
    const auto above = std::count_if(truth.steps.begin(), truth.steps.end(),
                                     [](const RecordedDay::Step& step) { return step.die > 88; });
    EXPECT_LE(double(above), 0.02 * double(truth.steps.size()));
    EXPECT_LT(whatIf(fit, days, FanCurve::balanced(), curve).differences[4].change, -100);
    EXPECT_EQ(thrown([&] { quietestCurve(fit, days, 60, CurveSensor::cpu); }),
              "即使全速运转也无法满足期望温度");
    EXPECT_EQ(thrown([&] { quietestCurve(fit, days, 91, CurveSensor::cpu); }),
              "期望温度范围为 60–90°C");
    EXPECT_EQ(thrown([&] { whatIf(fit, {}, {}, curve); }), "所选日期的记录不完整，无法推算曲线");
    curve.points.back().percent = 99;
    EXPECT_NE(thrown([&] { whatIf(fit, days, curve, FanCurve::quiet()); }), "");
    HeatFit narrow = fit;
    narrow.slowest = 1000;
    narrow.model.fromLoad = true;
    EXPECT_EQ(
        whatIf(narrow, days, {}, FanCurve::quiet()).notes,
        (std::vector{CurveNote::powerAsRecorded, CurveNote::fromLoad, CurveNote::unseenSpeeds}));
}

// A straight line stays one, whatever the moments at which it was read.
TEST(RecordedDayTest, IsReadAtEvenStepsBetweenGaps) {
    for (unsigned seed = 0; seed < 50; ++seed) {
        Dice dice(seed);
        std::vector<RecordedSample> samples;
        std::size_t steps = 0, begins = 0;
        double now = 0;
        for (int stretch = 0; stretch < 8; ++stretch) {
            const double start = now += dice.pick({31, 500, -20000});
            const double end = now + dice.pick({0, 100, 590, 612, 2000});
            for (double next = now; next <= end; next += dice.pick({0.5, 1, 5, 10, 30})) {
                RecordedSample sample;
                sample.date = Date{7e8 + (now = next)};
                sample.watts = sample.die = sample.sink = sample.rpm = now + 1e6;
                sample.load = dice.maybe(3, 5.0);  // too rarely there to be told
                samples.insert(samples.end(), 2, sample);
                samples.back().die = dice.maybe(2, kNaN);
            }
            const auto length = std::size_t((now - start) / 2) + 1;
            steps += length >= 300 ? length : 0;
            begins += length >= 300 ? 1 : 0;
        }
        const RecordedDay day = RecordedDay::from(samples);
        ASSERT_EQ(day.steps.size(), steps) << "seed " << seed;
        EXPECT_TRUE(day.hasWatts && !day.hasLoad && !day.hasAmbient);
        for (std::size_t i = 0; i < steps; ++i) {
            const RecordedDay::Step& step = day.steps[i];
            begins -= step.begins ? 1 : 0;
            ASSERT_TRUE(step.begins || std::abs(step.die - day.steps[i - 1].die - 2) < 1e-6);
            ASSERT_NEAR(step.watts, step.rpm, 1e-6) << "seed " << seed << ", step " << i;
        }
        ASSERT_EQ(begins, 0) << "seed " << seed;
    }
}

}  // namespace
}  // namespace ferovane::testing
