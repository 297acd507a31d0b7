#include "core/analysis/diagnostic_engine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "tests/analysis/unremarkable.h"

namespace ferovane {
namespace {

using testing::busyProgram;
using testing::diskProgram;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::kStart;
using testing::unremarkable;
using testing::withHeat;

using Action = DiagnosticAction::Kind;
using Confidence = DiagnosticConfidence;
using Kind = DiagnosticKind;
using Severity = DiagnosticSeverity;
using State = DiagnosticState;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kMiB = 1024 * 1024;

std::vector<std::string> ids(const DiagnosticReport& report) {
    std::vector<std::string> ids;
    for (const auto& finding : report.findings) {
        ids.push_back(finding.id);
    }
    return ids;
}

// The report on `input` after a minute without a gap.
DiagnosticReport afterAMinute(const DiagnosticInput& input) {
    DiagnosticEngine engine;
    for (int second = -60; second < 0; ++second) {
        engine.evaluate(unremarkable(second));
    }
    return engine.evaluate(input);
}

DiagnosticReport first(const DiagnosticInput& input) {
    return DiagnosticEngine().evaluate(input);
}

TEST(DiagnosticEngineTest, CallsAMachineStableOnlyAfter45UnbrokenSeconds) {
    DiagnosticEngine engine;
    for (int second = 0; second <= 70; ++second) {
        const auto report = engine.evaluate(unremarkable(second));
        EXPECT_EQ(report.state, second < 45 ? State::sampling : State::stable) << second;
        EXPECT_EQ(report.observedSeconds, std::min(second, 60));
        EXPECT_THAT(report.findings, IsEmpty());
    }
    // 15 s is no gap yet; a longer one, a second sample of one moment and a clock set back are.
    EXPECT_EQ(engine.evaluate(unremarkable(85)).state, State::stable);
    for (const double next : {100.001, 100.001, 40.0}) {
        const auto report = engine.evaluate(unremarkable(next));
        EXPECT_EQ(report.state, State::sampling) << next;
        EXPECT_EQ(report.observedSeconds, 0) << next;
        EXPECT_EQ(engine.hotSeconds(), 0);
    }
}

TEST(DiagnosticEngineTest, CallsATemperatureHighOnceTheSameComponentWasHotFor30Seconds) {
    DiagnosticEngine engine;
    for (double second = 0; second < 30; second += 0.25) {
        const auto report = engine.evaluate(withHeat(unremarkable(second), 95));
        EXPECT_THAT(ids(report), ElementsAre("temperature-observation")) << second;
        EXPECT_EQ(report.attentionCount, 0);
    }
    auto report = engine.evaluate(withHeat(unremarkable(30), 95));
    ASSERT_THAT(ids(report), ElementsAre("temperature"));
    const DiagnosticFinding expected{"temperature",
                                     Kind::temperature,
                                     Severity::warning,
                                     Confidence::possible,
                                     "CPU",
                                     95,
                                     30,
                                     DiagnosticAction{Action::temperatureTimeline, {}}};
    EXPECT_EQ(report.findings[0], expected);
    EXPECT_EQ(report.state, State::attention);

    // The heat moves to the graphics: a new streak.
    report = engine.evaluate(withHeat(unremarkable(31), 89.9, 85));
    EXPECT_THAT(ids(report), ElementsAre("temperature-observation"));
    EXPECT_EQ(report.findings[0].subject, "CPU") << "warm enough to be told of first";
    EXPECT_EQ(engine.hotSource(), HotSource::gpu);
    EXPECT_EQ(engine.evaluate(withHeat(unremarkable(46), 70, 86)).findings[0].subject, "GPU");
    EXPECT_EQ(engine.hotSeconds(), 15);
    // One cooler sample ends it.
    engine.evaluate(unremarkable(47));
    engine.evaluate(withHeat(unremarkable(48), 95));
    EXPECT_EQ(engine.hotSeconds(), 0);
    engine.evaluate(withHeat(unremarkable(48 + 15.5), 95));
    EXPECT_EQ(engine.hotSeconds(), 0) << "nobody knows what was between";
}

struct HeatCase {
    double cpu, gpu;
    std::optional<HotSource> hot;
    std::string warm;  // subject of the observation, or ""
};

TEST(DiagnosticEngineTest, TellsHotFromWarmAndTheProcessorFromTheGraphics) {
    const HeatCase cases[] = {
        {90, 20, HotSource::cpu, "CPU"},   {89.99, 20, std::nullopt, "CPU"},
        {80, 20, std::nullopt, "CPU"},     {79.99, 20, std::nullopt, ""},
        {20, 85, HotSource::gpu, "GPU"},   {20, 84.99, std::nullopt, "GPU"},
        {20, 75, std::nullopt, "GPU"},     {20, 74.99, std::nullopt, ""},
        {85, 86, HotSource::gpu, "CPU"},   {91, 86, HotSource::cpu, "CPU"},
        {kNaN, 86, HotSource::gpu, "GPU"}, {kInfinity, 20, std::nullopt, ""},
    };
    for (const auto& [cpu, gpu, hot, warm] : cases) {
        DiagnosticEngine engine;
        const auto report = engine.evaluate(withHeat(unremarkable(0), cpu, gpu));
        EXPECT_EQ(engine.hotSource(), hot) << cpu << " " << gpu;
        EXPECT_EQ(report.findings.empty() ? "" : report.findings[0].subject.value_or("none"), warm)
            << cpu << " " << gpu;
    }
}

TEST(DiagnosticEngineTest, TellsOneSystemFindingAndWhatTheSystemSaysFirst) {
    struct Case {
        int thermalState;
        std::optional<int> speedLimit;
        bool lowPower;
        std::string id;
        Kind kind;
        Severity severity;
        std::optional<double> value;
    };
    const Case cases[] = {
        {2, 100, false, "thermal-pressure", Kind::thermalPressure, Severity::warning, 2},
        {2, 60, false, "thermal-pressure", Kind::thermalLimit, Severity::warning, 2},
        {3, 60, true, "thermal-pressure", Kind::thermalLimit, Severity::critical, 3},
        {1, 99, false, "system-limit", Kind::performanceLimit, Severity::warning, 99},
        {0, 99, true, "system-limit", Kind::performanceLimit, Severity::information, 99},
        {4, 100, false, "temperature-observation", Kind::temperatureObservation,
         Severity::information, 95},
    };
    for (const Case& expected : cases) {
        auto input = withHeat(unremarkable(0), 95);
        input.snapshot.thermalState = expected.thermalState;
        input.snapshot.speedLimit = expected.speedLimit;
        input.snapshot.lowPower = expected.lowPower;
        const auto report = afterAMinute(input);
        ASSERT_EQ(report.findings.size(), 1);
        const auto& finding = report.findings[0];
        EXPECT_EQ(finding.id, expected.id);
        EXPECT_EQ(finding.kind, expected.kind) << finding.id;
        EXPECT_EQ(finding.severity, expected.severity) << finding.id;
        EXPECT_EQ(finding.value, expected.value) << finding.id;
        EXPECT_EQ(finding.action->kind, Action::temperatureTimeline);
    }
    auto input = unremarkable(0);
    input.snapshot.speedLimit.reset();
    input.snapshot.availableCPUs = 7;
    EXPECT_EQ(first(input).findings[0].value, std::nullopt) << "limited, but not known how far";
    EXPECT_EQ(first(input).metrics.performanceLimited, true);
}

TEST(DiagnosticEngineTest, NamesTheTwoHeaviestProgramsOfALongEnoughWindow) {
    auto input = unremarkable(0);
    input.sources = {busyProgram("c"),           busyProgram("b"),
                     busyProgram("a"),           busyProgram("d", 160),
                     busyProgram("e", kNaN, 80), busyProgram("f", 200, kInfinity)};
    auto report = afterAMinute(input);
    EXPECT_THAT(ids(report), ElementsAre("cpu:d", "cpu:a"));
    EXPECT_EQ(report.attentionCount, 2);
    const DiagnosticFinding expected{"cpu:d",
                                     Kind::sustainedCPU,
                                     Severity::warning,
                                     Confidence::possible,
                                     "App d",
                                     160,
                                     60,
                                     DiagnosticAction::reviewApplication("d")};
    EXPECT_EQ(report.findings[0], expected);

    struct Case {
        double average, current;
        std::optional<double> window;
        bool named;
    };
    for (const auto& [average, current, window, named] : std::vector<Case>{
             {100, 50, 45, true},
             {99.99, 50, 45, false},
             {100, 49.99, 45, false},
             {100, 50, 44.99, false},
             {100, 50, std::nullopt, false},
             {100, 50, kInfinity, false},
             {100, 50, -60, false},
         }) {
        input.sources = {busyProgram("x", average, current)};
        input.processSeconds = window;
        report = afterAMinute(input);
        EXPECT_EQ(report.attentionCount, named ? 1 : 0) << average << " " << current;
    }
    input.processSeconds = 40;
    EXPECT_EQ(afterAMinute(input).state, State::sampling);
    EXPECT_EQ(afterAMinute(input).observedSeconds, 40);
}

TEST(DiagnosticEngineTest, TakesProcessesListed15SecondsAgoForFreshAndOlderOnesForMissing) {
    auto input = unremarkable(0);
    input.sources = {busyProgram("x"), diskProgram("y", 30 * kMiB, 6 * kMiB, 60)};
    input.processDate = kStart - 15;
    EXPECT_THAT(ids(afterAMinute(input)), ElementsAre("cpu:x", "disk:y"));
    EXPECT_TRUE(first(input).metrics.processFresh);
    EXPECT_EQ(first(input).metrics.cpuSource->id, "x");
    EXPECT_EQ(first(input).metrics.diskSource->id, "y");

    input.processDate = kStart - 15.01;
    const auto report = afterAMinute(input);
    EXPECT_THAT(ids(report), ElementsAre("data-unavailable"));
    EXPECT_FALSE(report.metrics.processFresh);
    EXPECT_EQ(report.metrics.cpuSource, std::nullopt);
}

TEST(DiagnosticEngineTest, NamesTheFirstProgramThatMovesMostData) {
    struct Case {
        double average, current, seconds;
        bool named;
    };
    for (const auto& [average, current, seconds, named] : std::vector<Case>{
             {20 * kMiB, 5 * kMiB, 30, true},
             {20 * kMiB - 1, 5 * kMiB, 30, false},
             {20 * kMiB, 5 * kMiB - 1, 30, false},
             {20 * kMiB, 5 * kMiB, 29.99, false},
             {kInfinity, 5 * kMiB, 30, false},
             {20 * kMiB, kNaN, 30, false},
         }) {
        auto input = unremarkable(0);
        input.sources = {diskProgram("small", 1, 1, 60),
                         diskProgram("x", average, current, seconds)};
        const auto report = afterAMinute(input);
        EXPECT_EQ(report.findings.size(), named ? 1 : 0) << average << " " << current;
        EXPECT_EQ(report.state, named ? State::observing : State::stable);
    }
    auto input = unremarkable(0);
    input.sources = {diskProgram("b", 30 * kMiB, 9 * kMiB, 90),
                     diskProgram("a", 30 * kMiB, 9 * kMiB, 40),
                     diskProgram("idle now", 90 * kMiB, 0, 60)};
    const DiagnosticFinding expected{"disk:b",
                                     Kind::diskActivity,
                                     Severity::information,
                                     Confidence::confirmed,
                                     "App b",
                                     30 * kMiB,
                                     60,
                                     DiagnosticAction::reviewApplication("b")};
    EXPECT_THAT(afterAMinute(input).findings, ElementsAre(expected));
}

TEST(DiagnosticEngineTest, TellsOfMemoryWakeRequestsAndBattery) {
    auto input = unremarkable(0);
    input.snapshot.memoryPressure = MemoryPressure::critical;
    input.snapshot.acPower = false;
    input.supportsLowPowerMode = true;
    input.batteryPercent = 30;
    input.blockers = 3;
    const auto report = afterAMinute(input);
    ASSERT_THAT(ids(report), ElementsAre("memory-pressure", "wake-requests", "battery-policy"));
    EXPECT_EQ(report.findings[0].severity, Severity::critical);
    EXPECT_EQ(report.findings[0].value, 4);
    EXPECT_EQ(report.findings[0].action->kind, Action::memoryProcesses);
    EXPECT_EQ(report.findings[1].value, 3);
    EXPECT_EQ(report.findings[1].action->kind, Action::wakeRequests);
    EXPECT_EQ(report.findings[2].value, 30);
    EXPECT_EQ(report.findings[2].action->kind, Action::lowPowerPlan);
    EXPECT_EQ(report.attentionCount, 1);

    const std::function<void(DiagnosticInput&)> reliefs[] = {
        [](auto& it) { it.batteryPercent = 30.01; },
        [](auto& it) { it.batteryPercent = -1; },
        [](auto& it) { it.batteryPercent = kNaN; },
        [](auto& it) { it.batteryPercent.reset(); },
        [](auto& it) { it.snapshot.acPower = true; },
        [](auto& it) { it.snapshot.acPower.reset(); },
        [](auto& it) { it.snapshot.lowPower = true; },
        [](auto& it) { it.supportsLowPowerMode = false; },
    };
    for (const auto& relieve : reliefs) {
        auto relieved = input;
        relieved.snapshot.memoryPressure = MemoryPressure::warning;
        relieve(relieved);
        EXPECT_THAT(ids(afterAMinute(relieved)), ElementsAre("memory-pressure", "wake-requests"));
    }
}

TEST(DiagnosticEngineTest, SaysOnceThatDataAreMissingAndDrawsNoConclusion) {
    const std::function<void(DiagnosticInput&)> losses[] = {
        [](auto& it) { it.snapshot.sensors.clear(); },
        [](auto& it) { it.snapshot.sensors[0].celsius = kNaN; },
        [](auto& it) { it.snapshot.cpuUsage.reset(); },
        [](auto& it) { it.snapshot.cpuUsage = kInfinity; },
        [](auto& it) { it.snapshot.speedLimit.reset(); },
        [](auto& it) { it.snapshot.schedulerLimit.reset(); },
        [](auto& it) { it.snapshot.availableCPUs.reset(); },
        [](auto& it) { it.snapshot.memoryPressure.reset(); },
        [](auto& it) { it.processSeconds.reset(); },
        [](auto& it) { it.blockers.reset(); },
    };
    for (const auto& lose : losses) {
        DiagnosticEngine engine;
        for (double second = 0; second <= 45; second += 0.25) {
            auto input = unremarkable(second);
            lose(input);
            const auto report = engine.evaluate(input);
            EXPECT_EQ(report.findings.size(), second < 30 ? 0 : 1) << second;
            EXPECT_EQ(report.state, second < 45 ? State::sampling : State::partial) << second;
        }
    }
    auto input = unremarkable(0);
    input.blockers.reset();
    const DiagnosticFinding expected{"data-unavailable",    Kind::unavailable,
                                     Severity::information, Confidence::unavailable,
                                     std::nullopt,          std::nullopt,
                                     std::nullopt,          DiagnosticAction{Action::refresh, {}}};
    EXPECT_THAT(afterAMinute(input).findings, ElementsAre(expected));
    EXPECT_FALSE(first(input).metrics.wakeRequestsKnown);
}

TEST(DiagnosticEngineTest, PutsTheMostSevereFirstAndKeepsTheOrderOfTheRulesBelow) {
    auto input = withHeat(unremarkable(0), 81);
    input.snapshot.memoryPressure = MemoryPressure::critical;
    input.sources = {busyProgram("x"), diskProgram("y", 30 * kMiB, 6 * kMiB, 60)};
    input.blockers = 1;
    EXPECT_THAT(ids(afterAMinute(input)),
                ElementsAre("memory-pressure", "cpu:x", "temperature-observation", "disk:y",
                            "wake-requests"));
    const auto metrics = first(input).metrics;
    EXPECT_EQ(metrics.cpuTemperature, 81);
    EXPECT_EQ(metrics.gpuTemperature, 45);
    EXPECT_EQ(metrics.cpuUsage, 20);
    EXPECT_EQ(metrics.thermalTitle, "正常");
    EXPECT_EQ(metrics.performanceLimited, false);
    EXPECT_TRUE(metrics.wakeRequestsKnown);
}

}  // namespace
}  // namespace ferovane
