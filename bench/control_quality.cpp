// What the built-in curves do to a simulated Mac in hours of varying load, beside the same curves
// without their dead band and fall limit; then what one round of a lease costs.
//
//     control_quality [HOURS]
//
// The machine's clock is virtual and advances in the lease's pauses and in the waits for
// read-backs, so the figures depend on the code only and are the same in every run; those of the
// last table are times of this computer.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <vector>

#include "core/fan/curve_lease.h"
#include "core/fan/curve_policy.h"
#include "core/fan/fan_curve.h"
#include "core/fan/fan_keys.h"
#include "core/hardware/hardware_sampler.h"
#include "core/hardware/smc.h"
#include "simulator/machine/simulated_mac.h"

namespace {

using namespace ferovane;

constexpr const char* kModel = "MacBookPro16,1";
constexpr double kRoundSeconds = 2;
constexpr double kHotCelsius = 90;
constexpr double kDefaultHours = 6;
constexpr std::uint32_t kSeed = 20;

// A load that stays for one to four minutes, with a jitter every round.
class Work {
public:
    double next() {
        if (--roundsLeft_ <= 0) {
            roundsLeft_ = std::uniform_int_distribution<int>(30, 120)(random_);
            base_ = std::uniform_real_distribution<double>(5, 100)(random_);
        }
        return std::clamp(base_ + std::normal_distribution<double>(0, 4)(random_), 0.0, 100.0);
    }

private:
    std::mt19937 random_{kSeed};
    int roundsLeft_ = 0;
    double base_ = 0;
};

struct Quality {
    double peak = 0, hotSeconds = 0, seconds = 0, rpmSum = 0;
    std::uint64_t rounds = 0, writes = 0, reversals = 0;
};

// The machine, observed once a round.
class Run {
public:
    explicit Run(double seconds) : seconds_(seconds) { mac_.settle(); }

    bool over() { return mac_.now() >= seconds_; }
    SMC::Surroundings surroundings() {
        return {[this] { return mac_.now(); }, [this](double time) { mac_.advance(time); }, false};
    }
    simulator::SimulatedMac& mac() { return mac_; }

    // The pause between two rounds.
    void pass() {
        mac_.set(simulator::Property::kLoad, work_.next());
        observe();
        mac_.advance(kRoundSeconds);
    }
    Quality quality() {
        quality_.seconds = mac_.now();
        quality_.writes = mac_.calls().writes;
        return quality_;
    }

private:
    void observe() {
        ++quality_.rounds;
        const double celsius = mac_.dieTemperature();
        quality_.peak = std::max(quality_.peak, celsius);
        quality_.hotSeconds += celsius > kHotCelsius ? kRoundSeconds : 0;
        quality_.rpmSum += mac_.fanRpm(0);
        const double target = mac_.fanTarget(0);
        if (const double change = target - target_; target_ > 0 && change != 0) {
            quality_.reversals += change * direction_ < 0 ? 1 : 0;
            direction_ = change;
        }
        target_ = target;
    }

    simulator::SimulatedMac mac_ = simulator::builtInMac(kModel);
    Work work_;
    Quality quality_;
    double seconds_;
    double target_ = 0, direction_ = 0;
};

// The product's lease, started again whenever its half hour is over.
void followLease(Run& run, const FanCurve& curve) {
    SMC smc(run.surroundings());
    HardwareSampler sampler;
    while (!run.over()) {
        CurveLease::run(
            smc, curve, FanLimits::kLeaseSeconds, [&] { return sampler.sample(); },
            [&] { return run.mac().now(); }, [&] { return run.over(); },
            [&](double) { run.pass(); }, [](const FanControlProgress&) {}, [] {});
    }
}

// The curve, written every round as it stands.
void followPlainly(Run& run, const FanCurve& curve) {
    SMC smc(run.surroundings());
    HardwareSampler sampler;
    const std::vector<FanReading> fans = smc.fans();
    for (const FanReading& fan : fans) {
        smc.setManual(fan.id, true);
    }
    while (!run.over()) {
        const Snapshot snapshot = sampler.sample();
        const double celsius = temperature(curve.sensor, snapshot).value();
        const double percent =
            CurvePolicy::requiresMaximum(snapshot) ? 100 : curve.percent(celsius);
        for (const FanReading& fan : fans) {
            smc.setTarget(fan.id, *fan.minimum + (*fan.maximum - *fan.minimum) * percent / 100);
        }
        run.pass();
    }
}

void leaveToController(Run& run, const FanCurve&) {
    while (!run.over()) {
        run.pass();
    }
}

using Follow = std::function<void(Run&, const FanCurve&)>;

void report(const char* name, const FanCurve& curve, double hours, const Follow& follow) {
    Run run(hours * 3600);
    const auto attached = run.mac().attach();
    follow(run, curve);
    const Quality quality = run.quality();
    const double told = quality.seconds / 3600;
    std::printf("%-34s%9.1f%12.1f%12.0f%12.0f%12.0f\n", name, quality.peak,
                quality.hotSeconds / 60 / told, static_cast<double>(quality.reversals) / told,
                static_cast<double>(quality.writes) / told,
                quality.rpmSum / static_cast<double>(quality.rounds));
}

// One lease round on a machine in memory, by the slope between a short and a long lease, so that
// discovery and hand-back cancel. The temperature stands still, so the round writes nothing.
double microsecondsPerRound(int rounds) {
    simulator::SimulatedMac mac = simulator::intelMac(2);
    mac.addTemperatureKeys(60);
    const auto attached = mac.attach();
    double clock = 0;
    SMC smc({[&] { return mac.now(); }, [&](double time) { mac.advance(time); }, false});
    HardwareSampler sampler;
    sampler.sample();
    const auto start = std::chrono::steady_clock::now();
    CurveLease::run(
        smc, FanCurve::balanced(), FanLimits::kLeaseSeconds, [&] { return sampler.sample(); },
        [&] { return clock; }, [&] { return rounds == 0; },
        [&](double) {
            --rounds;
            clock += 1e-3;
        },
        [](const FanControlProgress&) {}, [] {});
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
        .count();
}

void reportRound() {
    constexpr int kShort = 100, kLong = 2100, kRepeats = 9;
    std::vector<double> slopes;
    for (int i = 0; i < kRepeats; ++i) {
        slopes.push_back((microsecondsPerRound(kLong) - microsecondsPerRound(kShort)) /
                         (kLong - kShort));
    }
    std::sort(slopes.begin(), slopes.end());
    std::printf(
        "\none round, 60 more sensors, two fans, simulated controller included: "
        "%.1f us (%.1f-%.1f)\n",
        slopes[kRepeats / 2], slopes.front(), slopes.back());
}

}  // namespace

int main(int count, char** arguments) {
    const double hours = count > 1 ? std::atof(arguments[1]) : kDefaultHours;
    std::printf("%s, %.1f virtual hours, rounds of %.0f s\n\n", kModel, hours, kRoundSeconds);
    std::printf("%-34s%9s%12s%12s%12s%12s\n", "fan 0 under", "peak C", "min/h >90", "reversals/h",
                "writes/h", "mean rpm");
    const struct {
        const char *lease, *plain;
        const FanCurve& curve;
    } rows[] = {{"quiet", "quiet, plain", FanCurve::quiet()},
                {"balanced", "balanced, plain", FanCurve::balanced()},
                {"performance", "performance, plain", FanCurve::performance()}};
    report("the controller itself", rows[0].curve, hours, leaveToController);
    for (const auto& row : rows) {
        report(row.lease, row.curve, hours, followLease);
        report(row.plain, row.curve, hours, followPlainly);
    }
    reportRound();
}
