// The diagnosis beside a model of its rules, on random sequences of inputs.
#include "core/analysis/diagnostic_engine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "tests/analysis/observation.h"

namespace ferovane::testing {
namespace {

using Action = DiagnosticAction::Kind;
using Confidence = DiagnosticConfidence;
using Found = DiagnosticKind;
using Severity = DiagnosticSeverity;
using State = DiagnosticState;
using Sources = std::vector<DiagnosticSource>;
constexpr double kMiB = 1024 * 1024;

// The rules as they are described, one after the other.
struct DiagnosticModel {
    std::optional<Date> last;
    double observed = 0, hotSeconds = 0;
    std::optional<HotSource> hotSource;
    std::vector<DiagnosticFinding> found;

    DiagnosticReport evaluate(const DiagnosticInput& input) {
        const Snapshot& s = input.snapshot;
        const auto cpu = known(s.temperature(SensorCategory::cpu));
        const auto gpu = known(s.temperature(SensorCategory::gpu));
        const bool outdated = input.processDate && !(std::abs(s.date - *input.processDate) <= 15);
        const Sources sources = outdated ? Sources() : input.sources;
        const bool noWindow = outdated || known(input.processSeconds).value_or(-1) < 0;
        const auto window = noWindow ? std::nullopt : input.processSeconds;

        const double dt = unbroken(last, s.date);
        const auto hot = cpu >= 90.0   ? std::optional(HotSource::cpu)
                         : gpu >= 85.0 ? std::optional(HotSource::gpu)
                                       : std::nullopt;
        observed = dt > 0 ? std::min(observed + dt, 60.0) : 0;
        hotSeconds = dt > 0 && hot && hot == hotSource ? hotSeconds + dt : 0;
        hotSource = hot;
        last = s.date;

        found.clear();
        const bool limited = s.speedLimit.value_or(100) < 100 ||
                             s.schedulerLimit.value_or(100) < 100 ||
                             s.availableCPUs.value_or(s.totalCPUs) < s.totalCPUs;
        const bool cpuIsHot = hot == HotSource::cpu;
        const bool warm = cpu >= 80.0 || gpu >= 75.0;
        if (s.thermalState == 2 || s.thermalState == 3) {
            find("thermal-pressure", limited ? Found::thermalLimit : Found::thermalPressure,
                 s.thermalState - 1, s.thermalState, Action::temperatureTimeline);
        } else if (limited) {
            find("system-limit", Found::performanceLimit, s.lowPower ? 0 : 1, s.speedLimit,
                 Action::temperatureTimeline);
        } else if (hotSeconds >= 30) {
            find("temperature", Found::temperature, 1, cpuIsHot ? cpu : gpu,
                 Action::temperatureTimeline, cpuIsHot ? "CPU" : "GPU", hotSeconds);
            found.back().confidence = Confidence::possible;
        } else if (warm) {
            const bool isCpu = cpu >= 80.0;
            find("temperature-observation", Found::temperatureObservation, 0, isCpu ? cpu : gpu,
                 Action::temperatureTimeline, isCpu ? "CPU" : "GPU");
        }
        if (s.memoryPressure.value_or(MemoryPressure::normal) != MemoryPressure::normal) {
            const bool critical = s.memoryPressure == MemoryPressure::critical;
            find("memory-pressure", Found::memoryPressure, critical ? 2 : 1, critical ? 4 : 2,
                 Action::memoryProcesses);
        }
        Sources byCpu = sources, byDisk = sources;
        std::erase_if(byCpu, [](const auto& it) { return !known(it.averageCPU + it.currentCPU); });
        std::ranges::sort(byCpu, {}, [](auto& it) { return std::pair(-it.averageCPU, it.id); });
        int blamed = 0;
        for (const DiagnosticSource& it : byCpu) {
            if (window >= 45.0 && it.averageCPU >= 100 && it.currentCPU >= 50 && blamed++ < 2) {
                find("cpu:" + it.id, Found::sustainedCPU, 1, it.averageCPU,
                     Action::reviewApplication, it.name, window, it.id);
                found.back().confidence = Confidence::possible;
            }
        }
        std::erase_if(byDisk, [](const auto& it) { return !known(it.averageDiskRate); });
        std::ranges::stable_sort(byDisk, std::greater{}, &DiagnosticSource::averageDiskRate);
        const auto busy = std::ranges::find_if(byDisk, [](const auto& it) {
            return known(it.diskSeconds) >= 30.0 && it.averageDiskRate >= 20 * kMiB &&
                   known(it.currentDiskRate) >= 5 * kMiB;
        });
        if (busy != byDisk.end()) {
            find("disk:" + busy->id, Found::diskActivity, 0, busy->averageDiskRate,
                 Action::reviewApplication, busy->name, std::min(busy->diskSeconds, 60.0),
                 busy->id);
        }
        if (input.blockers > 0) {
            find("wake-requests", Found::wakeRequests, 0, input.blockers, Action::wakeRequests);
        }
        if (input.supportsLowPowerMode && s.acPower == false && !s.lowPower &&
            input.batteryPercent >= 0.0 && input.batteryPercent <= 30.0) {
            find("battery-policy", Found::batteryPolicy, 0, input.batteryPercent,
                 Action::lowPowerPlan);
        }
        const bool allLimits = s.speedLimit && s.schedulerLimit && s.availableCPUs;
        const bool incomplete = !cpu || !known(s.cpuUsage) || !allLimits || !s.memoryPressure ||
                                !window || !input.blockers;
        if (incomplete && observed >= 30) {
            find("data-unavailable", Found::unavailable, 0, {}, Action::refresh);
            found.back().confidence = Confidence::unavailable;
        }

        std::ranges::stable_sort(found, std::greater{}, &DiagnosticFinding::severity);
        const auto attention = std::ranges::count_if(
            found, [](const auto& it) { return it.severity != Severity::information; });
        const State state = attention > 0                                  ? State::attention
                            : std::min(observed, window.value_or(45)) < 45 ? State::sampling
                            : incomplete                                   ? State::partial
                            : warm || busy != byDisk.end()                 ? State::observing
                                                                           : State::stable;
        const auto limit = limited || allLimits ? std::optional(limited) : std::nullopt;
        const bool fresh = input.processDate && !outdated;
        const bool wakes = input.blockers.has_value();
        const auto usage = known(s.cpuUsage);
        return {state,
                found,
                static_cast<int>(attention),
                std::min(observed, window.value_or(60)),
                s.date,
                {usage, cpu, gpu, s.thermalTitle(), limit, fresh, wakes, window, front(byCpu),
                 front(byDisk)}};
    }

    static std::optional<DiagnosticSource> front(Sources& sources) {
        for (DiagnosticSource& it : sources) {
            it.averageDiskRate = known(it.averageDiskRate);
            it.currentDiskRate = known(it.currentDiskRate);
        }
        return sources.empty() ? std::nullopt : std::optional(sources[0]);
    }
    void find(std::string id, DiagnosticKind kind, int severity, std::optional<double> value,
              Action action, std::optional<std::string> subject = {},
              std::optional<double> seconds = {}, std::string application = {}) {
        found.push_back({std::move(id), kind, Severity(severity), Confidence::confirmed,
                         std::move(subject), value, seconds,
                         DiagnosticAction{action, std::move(application)}});
    }
};

// About one thing changes from input to input, so that what takes time to find is found.
class RandomMachine {
public:
    explicit RandomMachine(unsigned seed) : dice_(seed) {
        for (const char* id : {"b", "a", "d", "c"}) {
            input_.sources.push_back({id, std::string("App ") + id, 0, 0, {}, {}, 0});
        }
    }

    DiagnosticInput next() {
        Snapshot& s = input_.snapshot;
        if (dice_.oneIn(40)) {
            s = unremarkable(0).snapshot;
        }
        turn(s.sensors[0].celsius, {50, 50, 79.99, 80, 89.99, 90, 90, 95, 95, kNaN, kInfinity});
        turn(s.sensors[1].celsius, {45, 45, 74.99, 75, 84.99, 85, 88, kNaN});
        turn(s.thermalState, {0, 0, 0, 1, 2, 3, 4, -1});
        turn(s.speedLimit, {100, 100, 99, 60, 120});
        turn(s.schedulerLimit, {100, 100, 100, 99});
        turn(s.availableCPUs, {8, 8, 8, 7, 9});
        turn(s.lowPower, {0, 1});
        turn(s.memoryPressure, {1, 1, 2, 4});
        turn(s.cpuUsage, {0, 20, 100, kNaN, kInfinity});
        turn(s.acPower, {0, 0, 1});
        turn(input_.supportsLowPowerMode, {0, 1, 1, 1});
        turn(input_.batteryPercent, {0, 30, 30.01, -0.5, kNaN});
        turn(input_.blockers, {0, 0, 1, 7, -1});
        turn(input_.processSeconds, {60, 60, 60, 60, 60, 45, 44.99, 40, 0, -1, kNaN, kInfinity});
        turn(age_, {0, 1, 15, 15.01, -5, -15, -15.01});
        DiagnosticSource& it = input_.sources[static_cast<std::size_t>(dice_.upTo(3))];
        turn(it.averageCPU, {0, 0, 0, 99.99, 100, 150, 150, 160, kInfinity});
        turn(it.currentCPU, {0, 0, 49.99, 50, 80, 80, kInfinity});
        turn(it.averageDiskRate, {20 * kMiB - 1, 20 * kMiB, 20 * kMiB, 30 * kMiB, kInfinity});
        turn(it.currentDiskRate, {5 * kMiB - 1, 5 * kMiB, 5 * kMiB, kNaN});
        turn(it.diskSeconds, {0, 0, 29.99, 30, 60, 61, 40, kInfinity});
        if (dice_.oneIn(30)) {
            std::ranges::shuffle(input_.sources, dice_.engine());
        }
        now_ = dice_.oneIn(25) ? now_ + dice_.pick({15.001, 0, -3, 100, -1e6})
                               : now_ + dice_.pick({1, 2.5, 5, 15});
        s.date = kStart + now_;
        input_.processDate = dice_.maybe(9, s.date - age_);
        return input_;
    }

private:
    template <class Value>
    void turn(Value& value, std::initializer_list<double> choices) {
        value = dice_.oneIn(20) ? static_cast<Value>(dice_.pick(choices)) : value;
    }
    template <class Value>
    void turn(std::optional<Value>& value, std::initializer_list<double> choices) {
        if (dice_.oneIn(20)) {
            value = dice_.maybe(6, static_cast<Value>(dice_.pick(choices)));
        }
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
            SCOPED_TRACE("seed " + std::to_string(seed) + ", input " + std::to_string(i));
            const DiagnosticInput input = machine.next();
            const DiagnosticReport report = engine.evaluate(input);
            ASSERT_EQ(report, model.evaluate(input));
            ASSERT_EQ(std::tuple(engine.last(), engine.observed(), engine.hotSeconds(),
                                 engine.hotSource()),
                      std::tuple(model.last, model.observed, model.hotSeconds, model.hotSource));
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

}  // namespace
}  // namespace ferovane::testing
