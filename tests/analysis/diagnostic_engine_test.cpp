// The diagnosis beside a model of its rules, on random sequences of inputs.
#include "core/analysis/diagnostic_engine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "tests/analysis/unremarkable.h"
#include "tests/support/dice.h"

namespace ferovane {
namespace {

using testing::Dice;
using testing::kInfinity;
using testing::kNaN;
using testing::kStart;
using testing::unremarkable;

using Action = DiagnosticAction::Kind;
using Confidence = DiagnosticConfidence;
using Kind = DiagnosticKind;
using Severity = DiagnosticSeverity;
using State = DiagnosticState;
constexpr auto kTold = Severity::information;
constexpr auto kWarning = Severity::warning;
constexpr auto kCritical = Severity::critical;
constexpr double kMiB = 1024 * 1024;

// The rules as they are described, one after the other.
class DiagnosticModel {
public:
    DiagnosticReport evaluate(const DiagnosticInput& input) {
        const Snapshot& s = input.snapshot;
        const auto cpu = known(s.temperature(SensorCategory::cpu));
        const auto gpu = known(s.temperature(SensorCategory::gpu));
        const bool outdated = input.processDate && s.date - *input.processDate > 15;
        const auto sources = outdated ? std::vector<DiagnosticSource>() : input.sources;
        const auto window = outdated || known(input.processSeconds).value_or(-1) < 0
                                ? std::nullopt
                                : input.processSeconds;

        const double dt = last ? s.date - *last : 0;
        const bool goesOn = dt > 0 && dt <= 15;
        const auto hot = cpu >= 90.0   ? std::optional(HotSource::cpu)
                         : gpu >= 85.0 ? std::optional(HotSource::gpu)
                                       : std::nullopt;
        observed = goesOn ? std::min(observed + dt, 60.0) : 0;
        hotSeconds = goesOn && hot && hot == hotSource ? hotSeconds + dt : 0;
        hotSource = hot;
        last = s.date;

        found.clear();
        const bool limited = s.speedLimit.value_or(100) < 100 ||
                             s.schedulerLimit.value_or(100) < 100 ||
                             s.availableCPUs.value_or(s.totalCPUs) < s.totalCPUs;
        const bool cpuWarm = cpu >= 80.0;
        const bool warm = cpuWarm || gpu >= 75.0;
        const auto confirmed = Confidence::confirmed;
        const auto timeline = Action::temperatureTimeline;
        if (s.thermalState == 2 || s.thermalState == 3) {
            find("thermal-pressure", limited ? Kind::thermalLimit : Kind::thermalPressure,
                 s.thermalState == 3 ? kCritical : kWarning, confirmed, s.thermalState, timeline);
        } else if (limited) {
            find("system-limit", Kind::performanceLimit, s.lowPower ? kTold : kWarning, confirmed,
                 s.speedLimit, timeline);
        } else if (hotSeconds >= 30) {
            const bool isCpu = hot == HotSource::cpu;
            find("temperature", Kind::temperature, kWarning, Confidence::possible,
                 isCpu ? cpu : gpu, timeline, {}, isCpu ? "CPU" : "GPU", hotSeconds);
        } else if (warm) {
            find("temperature-observation", Kind::temperatureObservation, kTold, confirmed,
                 cpuWarm ? cpu : gpu, timeline, {}, cpuWarm ? "CPU" : "GPU");
        }
        if (s.memoryPressure.value_or(MemoryPressure::normal) != MemoryPressure::normal) {
            const bool critical = s.memoryPressure == MemoryPressure::critical;
            find("memory-pressure", Kind::memoryPressure, critical ? kCritical : kWarning,
                 confirmed, critical ? 4 : 2, Action::memoryProcesses);
        }
        auto byCpu = sources;
        std::erase_if(byCpu, [](const auto& it) { return !known(it.averageCPU + it.currentCPU); });
        std::ranges::sort(byCpu, {},
                          [](const auto& it) { return std::pair(-it.averageCPU, it.id); });
        int blamed = 0;
        for (const DiagnosticSource& it : byCpu) {
            if (window >= 45.0 && it.averageCPU >= 100 && it.currentCPU >= 50 && blamed++ < 2) {
                find("cpu:" + it.id, Kind::sustainedCPU, kWarning, Confidence::possible,
                     it.averageCPU, Action::reviewApplication, it.id, it.name, window);
            }
        }
        auto byDisk = sources;
        std::erase_if(byDisk, [](const auto& it) { return !known(it.averageDiskRate); });
        std::ranges::stable_sort(byDisk, std::ranges::greater{},
                                 &DiagnosticSource::averageDiskRate);
        const auto busy = std::ranges::find_if(byDisk, [](const auto& it) {
            return known(it.diskSeconds) >= 30.0 && it.averageDiskRate >= 20 * kMiB &&
                   known(it.currentDiskRate) >= 5 * kMiB;
        });
        if (busy != byDisk.end()) {
            find("disk:" + busy->id, Kind::diskActivity, kTold, confirmed, busy->averageDiskRate,
                 Action::reviewApplication, busy->id, busy->name,
                 std::min(busy->diskSeconds, 60.0));
        }
        if (input.blockers > 0) {
            find("wake-requests", Kind::wakeRequests, kTold, confirmed, input.blockers,
                 Action::wakeRequests);
        }
        if (input.supportsLowPowerMode && s.acPower == false && !s.lowPower &&
            input.batteryPercent >= 0.0 && input.batteryPercent <= 30.0) {
            find("battery-policy", Kind::batteryPolicy, kTold, confirmed, input.batteryPercent,
                 Action::lowPowerPlan);
        }
        const bool allLimits = s.speedLimit && s.schedulerLimit && s.availableCPUs;
        const bool incomplete = !cpu || !known(s.cpuUsage) || !allLimits || !s.memoryPressure ||
                                !window || !input.blockers;
        if (incomplete && observed >= 30) {
            find("data-unavailable", Kind::unavailable, kTold, Confidence::unavailable, {},
                 Action::refresh);
        }

        DiagnosticReport report;
        std::ranges::stable_sort(found, std::ranges::greater{}, &DiagnosticFinding::severity);
        report.findings = found;
        report.attentionCount = static_cast<int>(std::ranges::count_if(
            found, [](const auto& finding) { return finding.severity != kTold; }));
        report.state = report.attentionCount > 0                   ? State::attention
                       : observed < 45 || (window && *window < 45) ? State::sampling
                       : incomplete                                ? State::partial
                       : warm || busy != byDisk.end()              ? State::observing
                                                                   : State::stable;
        report.observedSeconds = std::min(observed, window.value_or(observed));
        report.date = s.date;
        report.metrics = {known(s.cpuUsage),
                          cpu,
                          gpu,
                          s.thermalTitle(),
                          limited || allLimits ? std::optional(limited) : std::nullopt,
                          input.processDate && !outdated,
                          input.blockers.has_value(),
                          window,
                          front(byCpu),
                          front(byDisk)};
        return report;
    }

    std::optional<Date> last;
    double observed = 0, hotSeconds = 0;
    std::optional<HotSource> hotSource;

private:
    static std::optional<double> known(std::optional<double> value) {
        return value && std::isfinite(*value) ? value : std::nullopt;
    }
    static std::optional<DiagnosticSource> front(std::vector<DiagnosticSource> sources) {
        for (DiagnosticSource& source : sources) {
            source.averageDiskRate = known(source.averageDiskRate);
            source.currentDiskRate = known(source.currentDiskRate);
            return source;
        }
        return std::nullopt;
    }
    void find(std::string id, Kind kind, Severity severity, Confidence confidence,
              std::optional<double> value, Action action, std::string application = {},
              std::optional<std::string> subject = {}, std::optional<double> seconds = {}) {
        found.push_back({std::move(id), kind, severity, confidence, std::move(subject), value,
                         seconds, DiagnosticAction{action, std::move(application)}});
    }

    std::vector<DiagnosticFinding> found;
};

// One thing changes from input to input, so that what takes time to find is found.
class RandomMachine {
public:
    explicit RandomMachine(unsigned seed) : dice_(seed) {
        for (const char* id : {"b", "a", "d", "c"}) {
            input_.sources.push_back({id, std::string("App ") + id, 0, 0, {}, {}, 0});
        }
    }

    DiagnosticInput next() {
        now_ +=
            dice_.oneIn(25) ? dice_.pick({15.001, 0, -3, 100, -1e9}) : dice_.pick({1, 2.5, 5, 15});
        now_ = std::abs(now_) > 1e8 ? 0 : now_;
        for (int changes = dice_.upTo(2); changes > 0; --changes) {
            change();
        }
        input_.snapshot.date = kStart + now_;
        input_.processDate = dice_.maybe(9, input_.snapshot.date - age_);
        return input_;
    }

private:
    int whole(std::initializer_list<double> values) { return static_cast<int>(dice_.pick(values)); }

    void change() {
        Snapshot& s = input_.snapshot;
        DiagnosticSource& source = input_.sources[static_cast<std::size_t>(dice_.upTo(3))];
        const std::function<void()> changes[] = {
            [&] {
                s.sensors[0].celsius = dice_.pick({50, 79.99, 80, 89.99, 90, 90, 95, kNaN});
            },
            [&] {
                s.sensors[0].celsius = dice_.pick({50, 90, 95, 95, kInfinity});
            },
            [&] {
                s.sensors[1].celsius = dice_.pick({45, 74.99, 75, 84.99, 85, 88, kNaN});
            },
            [&] {
                s.thermalState = whole({0, 0, 0, 1, 2, 3, 4, -1});
            },
            [&] {
                s.speedLimit = dice_.maybe(5, whole({100, 100, 99, 60, 120}));
            },
            [&] {
                s.schedulerLimit = dice_.maybe(5, whole({100, 100, 100, 99}));
            },
            [&] {
                s.availableCPUs = dice_.maybe(5, whole({8, 8, 8, 7, 9}));
            },
            [&] { s.lowPower = dice_.oneIn(2); },
            [&] {
                s.memoryPressure = dice_.maybe(4, MemoryPressure(whole({1, 1, 2, 4})));
            },
            [&] {
                s.cpuUsage = dice_.maybe(5, dice_.pick({0, 20, 100, kNaN, kInfinity}));
            },
            [&] { s.acPower = dice_.maybe(4, dice_.oneIn(3)); },
            [&] { input_.supportsLowPowerMode = !dice_.oneIn(4); },
            [&] {
                input_.batteryPercent = dice_.maybe(5, dice_.pick({0, 30, 30.01, -0.5, kNaN}));
            },
            [&] {
                input_.blockers = dice_.maybe(5, whole({0, 0, 1, 7, -1}));
            },
            [&] {
                input_.processSeconds = dice_.maybe(7, dice_.pick({60, 60, 45, 44.99, 40}));
            },
            [&] {
                input_.processSeconds = dice_.pick({60, 60, 60, 0, -1, kNaN, kInfinity});
            },
            [&] {
                age_ = dice_.pick({0, 1, 15, 15.01, -5});
            },
            [&] {
                source.averageCPU = dice_.pick({0, 99.99, 100, 150, 150, 160, kInfinity});
            },
            [&] {
                source.currentCPU = dice_.pick({0, 49.99, 50, 80, 80, kInfinity});
            },
            [&] {
                source.averageDiskRate = dice_.maybe(6, dice_.pick({20 * kMiB - 1, kInfinity}));
            },
            [&] {
                source.averageDiskRate = dice_.pick({20 * kMiB, 30 * kMiB});
            },
            [&] {
                source.currentDiskRate = dice_.maybe(6, dice_.pick({5 * kMiB - 1, 5 * kMiB, kNaN}));
            },
            [&] {
                source.diskSeconds = dice_.pick({29.99, 30, 60, 61, 40, kInfinity});
            },
            [&] { std::ranges::shuffle(input_.sources, dice_.engine()); },
            [&] { std::ranges::for_each(input_.sources, [](auto& it) { it.averageCPU = 0; }); },
            [&] { std::ranges::for_each(input_.sources, [](auto& it) { it.diskSeconds = 0; }); },
            [&] { input_.snapshot = unremarkable(0).snapshot; },
        };
        changes[dice_.bits() % std::size(changes)]();
    }

    Dice dice_;
    DiagnosticInput input_ = unremarkable(0);
    double now_ = 0, age_ = 0;
};

TEST(DiagnosticEngineTest, SaysWhatTheRulesSay) {
    int kinds[11] = {}, states[5] = {};
    for (unsigned seed = 0; seed < 150; ++seed) {
        RandomMachine machine(seed);
        DiagnosticEngine engine;
        DiagnosticModel model;
        for (int i = 0; i < 300; ++i) {
            const DiagnosticInput input = machine.next();
            const DiagnosticReport report = engine.evaluate(input);
            ASSERT_EQ(report, model.evaluate(input)) << "seed " << seed << ", input " << i;
            ASSERT_EQ(std::tuple(engine.last(), engine.observed(), engine.hotSeconds(),
                                 engine.hotSource()),
                      std::tuple(model.last, model.observed, model.hotSeconds, model.hotSource))
                << "seed " << seed << ", input " << i;
            for (const auto& finding : report.findings) {
                ++kinds[static_cast<int>(finding.kind)];
            }
            ++states[static_cast<int>(report.state)];
        }
    }
    // The random machines come everywhere.
    EXPECT_GE(*std::ranges::min_element(kinds), 200);
    EXPECT_GE(*std::ranges::min_element(states), 200);
}

// An example to read: a machine at rest is called stable once it was watched for 45 s.
TEST(DiagnosticEngineTest, CallsAMachineStableAfter45UnbrokenSeconds) {
    DiagnosticEngine engine;
    for (int second = 0; second <= 70; ++second) {
        const auto report = engine.evaluate(unremarkable(second));
        EXPECT_EQ(report.state, second < 45 ? State::sampling : State::stable) << second;
        EXPECT_TRUE(report.findings.empty());
    }
    EXPECT_EQ(engine.evaluate(unremarkable(85)).state, State::stable) << "15 s are no gap";
    EXPECT_EQ(engine.evaluate(unremarkable(100.5)).state, State::sampling);
}

}  // namespace
}  // namespace ferovane
