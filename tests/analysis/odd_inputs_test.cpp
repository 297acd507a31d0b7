// Whatever dates and figures a machine tells: what comes out is bounded, finite and in order.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <iterator>
#include <limits>
#include <random>
#include <vector>

#include "core/analysis/cpu_load_history.h"
#include "core/analysis/diagnostic_engine.h"
#include "core/analysis/metric_chart.h"
#include "core/analysis/metric_histories.h"
#include "core/analysis/optimization_assessment.h"
#include "core/analysis/process_activity.h"
#include "core/analysis/sustained_load.h"
#include "core/analysis/turbo_history.h"

namespace ferovane {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kOdd[] = {
    0,   1, -1, 15,   16,    1e9, -1e9,      1e300,      -1e300,
    0.1, 5, 60, 3600, 90000, -90, kInfinity, -kInfinity, std::numeric_limits<double>::quiet_NaN()};

class OddMachine {
public:
    explicit OddMachine(unsigned seed) : random_(seed) {}

    double odd() { return kOdd[random_() % std::size(kOdd)]; }
    int upTo(int most) { return static_cast<int>(random_() % (static_cast<unsigned>(most) + 1)); }

    // Mostly a second later; at times set forward or back, or no date at all.
    Date next() {
        now_ = upTo(20) == 0 ? 7e8 + odd() : now_ + (upTo(30) == 0 ? -3 : 1);
        now_ = std::abs(now_) < 1e15 ? now_ : 7e8;
        return {upTo(50) == 0 ? odd() : now_};
    }

    Snapshot sample() {
        Snapshot sample;
        sample.date = next();
        sample.cpuUsage = upTo(4) == 0 ? odd() : upTo(100);
        for (int i = upTo(4); i > 0; --i) {
            sample.sensors.push_back(
                {upTo(1) == 0 ? "TC0P" : "TG0P", "", upTo(3) == 0 ? odd() : upTo(110)});
        }
        for (int i = upTo(11); i > 0; --i) {
            sample.fans.push_back({upTo(9), odd(), odd(), odd(), {}, true});
        }
        sample.thermalState = upTo(5) - 1;
        sample.speedLimit = upTo(200) - 20;
        sample.turbo = static_cast<TurboState>(upTo(3));
        return sample;
    }

    // Few pids and start times, so that many meet, repeat, and are each other's parents.
    std::vector<ProcessSample> processes() {
        std::vector<ProcessSample> list(static_cast<std::size_t>(upTo(30)));
        for (ProcessSample& one : list) {
            one.pid = upTo(12) - 1;
            one.parentPid = upTo(12) - 1;
            one.started = random_() % 3;
            one.cpuNanoseconds = std::uint64_t{random_()} << (random_() % 33);
            one.diskReadBytes = random_();
            one.diskWriteBytes = std::uint64_t{random_()} << 32;
        }
        return list;
    }

private:
    std::mt19937 random_;
    double now_ = 7e8;
};

void expectSound(const DiagnosticReport& report) {
    EXPECT_TRUE(report.observedSeconds >= 0 && report.observedSeconds <= 60);
    for (const DiagnosticFinding& finding : report.findings) {
        EXPECT_TRUE(std::isfinite(finding.value.value_or(0))) << finding.id;
        EXPECT_TRUE(std::isfinite(finding.seconds.value_or(0))) << finding.id;
    }
}

void expectSound(const ProcessActivity& activity) {
    EXPECT_TRUE(activity.windowSeconds() >= 0 && activity.windowSeconds() <= 60);
    for (const DiagnosticSource& source : activity.sources()) {
        for (const double figure :
             {source.averageCPU, source.currentCPU, source.diskSeconds,
              source.averageDiskRate.value_or(0), source.currentDiskRate.value_or(0)}) {
            EXPECT_TRUE(figure >= 0 && std::isfinite(figure)) << source.id;
        }
    }
}

void expectSound(const MetricSeries& series, const ChartFrame& frame) {
    const auto buckets = series.buckets();
    for (std::size_t i = 0; i < buckets.size(); ++i) {
        const MetricBucket& bucket = buckets[i];
        EXPECT_TRUE(bucket.minimum <= bucket.mean && bucket.mean <= bucket.maximum);
        EXPECT_TRUE(bucket.first <= bucket.last && (i == 0 || buckets[i - 1].last < bucket.first));
    }
    for (const ChartLine& line : MetricChart::lines(buckets, frame)) {
        double before = 0;
        for (const ChartPoint& point : line) {
            EXPECT_TRUE(point.x >= before && point.x <= 1 && point.y >= 0 && point.y <= 1);
            before = point.x;
        }
    }
}

void expectSound(const OptimizationResult& result) {
    if (result.verdict != OptimizationVerdict::notEnoughData) {
        EXPECT_TRUE(result.windowSeconds >= 120 && result.windowSeconds <= 600);
        EXPECT_TRUE(std::isfinite(result.cpuTemperature->change()));
    }
}

TEST(OddInputsTest, LeaveEveryFigureFiniteAndEveryHistoryInOrder) {
    for (unsigned seed = 0; seed < 60; ++seed) {
        OddMachine machine(seed);
        DiagnosticEngine engine;
        ProcessActivity activity;
        MetricHistories histories;
        CpuLoadHistory loads;
        SustainedLoad sustained;
        TurboHistory turbo;
        OptimizationAssessment assessment;
        for (int i = 0; i < 300; ++i) {
            const Snapshot sample = machine.sample();
            activity.add(sample.date, machine.processes());
            expectSound(activity);
            expectSound(engine.evaluate({sample, activity.sources(), activity.date(),
                                         activity.windowSeconds(), machine.upTo(3) - 1,
                                         machine.odd(), true}));
            histories.add(sample);
            for (const auto& [name, history] : histories.all()) {
                const ChartFrame frame{sample.date - 600, sample.date, machine.odd(), machine.odd(),
                                       50};
                expectSound(history.minutes(), frame);
                expectSound(history.hours(), {Date{machine.odd()}, sample.date, 0, 100, 7});
            }
            loads.append(sample.date, sample.cpuUsage);
            EXPECT_LE(loads.seconds(CpuLoadBand::idle), CpuLoadHistory::kKeptSeconds);
            sustained.append(sample.date, sample.cpuUsage);
            turbo.append(sample);
            for (const TurboPeriod& period : turbo.periods()) {
                EXPECT_FALSE(period.to < period.from);
            }
            assessment.append({sample.date, sample.cpuUsage, sample.cpuTemperature(), {}, {}});
            if (machine.upTo(40) == 0) {
                assessment.noteChange(machine.next());
            }
            expectSound(assessment.assess());
            ASSERT_FALSE(HasFailure()) << "seed " << seed << ", sample " << i;
        }
    }
}

}  // namespace
}  // namespace ferovane
