// The heat model and what it answers, beside simulated Macs: their heat has more nodes than the
// model, another law of flow, and a room that drifts.
//
// FEROVANE_HEAT_HOURS=N: days of N hours on every machine with fans, instead of short ones on one.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/analysis/curve_what_if.h"
#include "core/analysis/recorder.h"
#include "core/fan/curve_lease.h"
#include "core/fan/fan_keys.h"
#include "core/hardware/smc.h"
#include "simulator/machine/simulated_mac.h"
#include "tests/support/dice.h"
#include "tests/support/failure_text.h"

namespace ferovane::testing {
namespace {

using simulator::Property;

const char* const kHeatScale = std::getenv("FEROVANE_HEAT_HOURS");
const double kHours = kHeatScale != nullptr ? std::atof(kHeatScale) : 1.05;

struct Machine {
    std::string name;
    FanRange fans;
};
const Machine kLaptop{"MacBookPro11,4", {2080, 5928}};
const Machine kTower{"MacPro7,1", {500, 2275}};

// A day under a curve, or under the system's own control, read every two seconds. The same day has
// the same work, whatever the fans do. In no record: graphics load, in percent every other ten
// minutes. As a recorder tells it, in means, or every sample.
RecordedDay record(const Machine& machine, const std::optional<FanCurve>& curve, int day,
                   double graphics = 0, bool means = true) {
    simulator::SimulatedMac mac = simulator::builtInMac(machine.name);
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
        mac.set(Property::kLoad, load);
        mac.set(Property::kGraphicsLoad, step / 300 % 2 == 0 ? 0 : graphics);
        mac.set(Property::kAmbient, 19 + 3 * day % 8 + std::sin(day + mac.now() / 4600));
        mac.advance(seconds);
    };
    const auto read = [&](double celsius) {
        return std::round(celsius * 4 + (dice.upTo(30) - 15) / 10.0) / 4;
    };
    Recorder recorder;
    std::vector<HeatSample> samples;
    const auto sample = [&] {
        Snapshot snapshot;
        snapshot.date = Date{7e8 + mac.now()};
        snapshot.cpuUsage = load;
        snapshot.sensors = {{"TC0C", "", read(mac.dieTemperature())},
                            {"Th1H", "", read(mac.heatSinkTemperature())}};
        snapshot.additionalSensors.emplace();
        for (const char* key : {"PCPT", "PC0R", "PSTR"}) {
            if (const auto watts = mac.number(key)) {
                snapshot.additionalSensors->push_back({key, "", HardwareSensorKind::power, *watts});
            }
        }
        snapshot.fans.resize(std::size_t(mac.fanCount()));
        for (std::size_t fan = 0; fan < snapshot.fans.size(); ++fan) {
            snapshot.fans[fan].rpm = mac.fanRpm(int(fan));
        }
        recorder.add(snapshot, {});
        samples.push_back(heatSample(snapshot, {}, CurveSensor::hottest));
        return snapshot;
    };
    pass(0);
    mac.settle();
    const auto over = [&] { return mac.now() >= kHours * 3600; };
    while (!over()) {
        if (curve) {
            CurveLease::run(
                smc, *curve, FanLimits::kLeaseSeconds, sample, [&] { return mac.now(); }, over,
                [&](double) { pass(2); }, [](const FanControlProgress&) {}, [] {});
        } else {
            sample();
            pass(2);
        }
    }
    return means ? recorder.heatDay(CurveSensor::hottest) : RecordedDay::from(samples);
}

std::vector<RecordedDay> fourDays(const Machine& machine, const std::optional<FanCurve>& curve,
                                  double graphics = 0) {
    std::vector<RecordedDay> days;
    for (int day = 1; day <= 4; ++day) {
        days.push_back(record(machine, curve, day, graphics));
    }
    return days;
}

TEST(HeatModelTest, ForetellsCurvesAndDaysThatItHasNotSeen) {
    std::vector<Machine> machines{kLaptop};
    if (kHeatScale != nullptr) {
        machines = {kLaptop, kTower, {"MacBookPro16,1", {1768, 5101}}, {"iMac18,3", {1200, 2867}}};
    }
    for (const Machine& machine : machines) {
        for (const auto& usual : {std::optional<FanCurve>(), std::optional(FanCurve::balanced())}) {
            const HeatFit fit = HeatFit::of(fourDays(machine, usual), machine.fans);
            ASSERT_FALSE(fit.refusal) << machine.name << ": " << title(*fit.refusal);
            const std::vector<RecordedDay> day{record(machine, usual, 7)};
            for (const FanCurve& curve : {FanCurve::quiet(), FanCurve::performance()}) {
                const RecordedDay truth = record(machine, curve, 7, 0, false);
                const CurveRun told = CurveReplay(fit.model, day).under(curve);
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
                    "%-14s %-9s %-5s %.2f K rms %+.1f %% rpm; mean %+.1f (%+.1f to %+.1f), "
                    "really %+.1f K\n",
                    machine.name.c_str(), usual ? "balanced" : "automatic",
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
    using R = HeatRefusal;
    using Days = std::vector<RecordedDay>;
    const Days good = fourDays(kLaptop, {});
    const auto with = [&](auto change) {
        Days days = good;
        for (std::size_t i = 0; i < days[0].steps.size() * days.size(); ++i) {
            const std::size_t day = i % days.size(), step = i / days.size();
            if (step < days[day].steps.size()) {
                change(days[day].steps[step], day, step / 200 % 2 == 0);
            }
        }
        return days;
    };
    // The last day takes no part in the fit.
    const Days other = with([](auto& it, auto day, bool) { it.die += day == 3 ? 0.25 : 0; });
    EXPECT_EQ(HeatFit::of(other, kLaptop.fans).model.dieOffset,
              HeatFit::of(good, kLaptop.fans).model.dieOffset);
    const struct {
        R refusal;
        Days days;
        FanRange fans = kLaptop.fans;
    } cases[] = {
        {R::fanRange, good, {2000, 2000}},
        {R::tooFewDays, {good[0], good[1], good[2]}},
        {R::fanNotVaried, with([](auto& it, auto, bool) { it.rpm = 3000; })},
        {R::heatNotVaried, with([](auto& it, auto, bool) { it.watts = it.load = 20; })},
        // A sink's sensor that is stuck, then one that is the die's, then a source of heat that
        // nobody reads.
        {R::fitInvalid, with([](auto& it, auto, bool odd) { it.sink = odd ? 31 : 31.25; })},
        {R::fitInvalid, with([](auto& it, auto, bool) { std::swap(it.sink, it.die); })},
        {R::fitInvalid, kHeatScale != nullptr ? fourDays(kLaptop, {}, 100) : Days()},
        {R::notAccurate, with([](auto& it, auto day, bool) { it.die += day == 3 ? 8 : 0; })},
        // Another machine's fan.
        {R::fanUnclear, with([](auto& it, auto, bool odd) { it.rpm = odd ? 5000 : 2000; })},
    };
    for (const auto& [refusal, days, fans] : cases) {
        const HeatFit fit = HeatFit::of(days, fans);
        ASSERT_TRUE(fit.refusal);
        EXPECT_TRUE(fit.refusal == refusal || days.empty())
            << title(refusal) << ", not " << title(*fit.refusal);
        EXPECT_EQ(failureOf([&] { whatIf(fit, good, {}, FanCurve::quiet()); }),
                  title(*fit.refusal));
    }
}

TEST(HeatModelTest, ProposesTheQuietestCurveThatKeepsAWish) {
    std::vector<RecordedDay> recorded = fourDays(kTower, {});
    for (RecordedDay& day : recorded) {
        day.hasWatts = false;
    }
    const HeatFit fit = HeatFit::of(recorded, kTower.fans);
    const std::vector<RecordedDay> days{record(kTower, {}, 7)};
    FanCurve curve = quietestCurve(fit, days, 88, CurveSensor::cpu);
    curve.validate();
    const RecordedDay truth = record(kTower, curve, 7, 0, false);
    const auto above = std::count_if(truth.steps.begin(), truth.steps.end(),
                                     [](const auto& step) { return step.die > 88; });
    EXPECT_LE(double(above), 0.02 * double(truth.steps.size()));
    EXPECT_LT(whatIf(fit, days, FanCurve::balanced(), curve).differences[4].high, -100);
    EXPECT_EQ(failureOf([&] { quietestCurve(fit, days, 60, CurveSensor::cpu); }),
              "即使全速运转也无法满足期望温度");
    EXPECT_EQ(failureOf([&] { quietestCurve(fit, days, 91, CurveSensor::cpu); }),
              "期望温度范围为 60–90°C");
    EXPECT_EQ(failureOf([&] { whatIf(fit, {}, {}, curve); }), "所选日期的记录不完整，无法推算曲线");
    HeatFit narrow = fit;
    narrow.slowest = 1000;
    EXPECT_EQ(
        whatIf(narrow, days, {}, FanCurve::quiet()).notes,
        (std::vector{CurveNote::powerAsRecorded, CurveNote::fromLoad, CurveNote::unseenSpeeds}));
    curve.points.back().percent = 99;
    EXPECT_NE(failureOf([&] { whatIf(fit, days, curve, FanCurve::quiet()); }), "");
}

// A straight line stays one, whatever the moments at which it was read.
TEST(RecordedDayTest, IsReadAtEvenStepsBetweenGaps) {
    for (unsigned seed = 0; seed < 50; ++seed) {
        Dice dice(seed);
        std::vector<HeatSample> samples{
            {Date{dice.pick({1e20, kNaN})}, 1, 1, 1, 1, 1, 1, {}, {}, {}}};
        std::size_t steps = 0, begins = 0;
        double now = 0;
        for (int stretch = 0; stretch < 8; ++stretch) {
            const double start = now += dice.pick({31, 500, -20000});
            const double end = now + dice.pick({0, 100, 590, 612, 2000});
            for (double next = now; next <= end; next += dice.pick({0.5, 1, 5, 10, 30})) {
                HeatSample sample;
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
        EXPECT_TRUE(day.hasWatts && !day.hasLoad);
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
