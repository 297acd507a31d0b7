// What holds of every diagnosis, on random sequences of inputs.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <set>
#include <string>

#include "core/analysis/diagnostic_engine.h"
#include "tests/analysis/unremarkable.h"

namespace ferovane {
namespace {

using testing::busyProgram;
using testing::diskProgram;
using testing::unremarkable;
using testing::withHeat;

class RandomInputs {
public:
    explicit RandomInputs(unsigned seed) : random_(seed) {}

    DiagnosticInput next() {
        constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
        seconds_ += pick({1, 1, 1, 1, 5, 15, 15.5, 0, -3});
        auto input = withHeat(unremarkable(seconds_), pick({50, 80, 89, 90, 95, 95, 95, kNaN}),
                              pick({45, 75, 85, 90, kNaN}));
        input.snapshot.sensors.push_back({"TC1P", "CPU · TC1P", pick({50, 80, 91})});
        input.snapshot.thermalState = static_cast<int>(pick({0, 0, 0, 1, 2, 3, 7}));
        input.snapshot.speedLimit = maybe(static_cast<int>(pick({100, 100, 100, 60})));
        input.snapshot.lowPower = pick({0, 1}) > 0;
        input.snapshot.memoryPressure =
            maybe(pick({0, 1}) > 0 ? MemoryPressure::normal : MemoryPressure::warning);
        input.processSeconds = maybe(pick({0, 40, 44, 45, 60, kNaN}));
        input.processDate = maybe(input.snapshot.date - pick({0, 15, 16}));
        input.blockers = maybe(static_cast<int>(pick({0, 2})));
        for (const char* id : {"a", "b", "c"}) {
            input.sources.push_back(busyProgram(id, pick({0, 99, 100, 150, kNaN}), pick({0, 80})));
            input.sources.push_back(diskProgram(id, pick({0, 3e7, kNaN}), pick({0, 1e7}), 40));
        }
        return input;
    }

    // A later input than the last, so that dates do not repeat.
    std::mt19937& engine() { return random_; }

private:
    double pick(std::initializer_list<double> values) {
        return values.begin()[random_() % values.size()];
    }
    template <class Value>
    std::optional<Value> maybe(Value value) {
        return random_() % 8 == 0 ? std::nullopt : std::optional(value);
    }

    std::mt19937 random_;
    double seconds_ = 0;
};

void checkAgainstSnapshot(const DiagnosticReport& report, const DiagnosticInput& input) {
    const Snapshot& snapshot = input.snapshot;
    std::set<std::string> ids;
    int system = 0;
    int blamed = 0;
    for (const DiagnosticFinding& finding : report.findings) {
        EXPECT_TRUE(ids.insert(finding.id).second) << finding.id;
        EXPECT_TRUE(std::isfinite(finding.value.value_or(0))) << finding.id;
        switch (finding.kind) {
            case DiagnosticKind::thermalPressure:
            case DiagnosticKind::thermalLimit:
                EXPECT_TRUE(snapshot.thermalState == 2 || snapshot.thermalState == 3);
                EXPECT_EQ(finding.kind == DiagnosticKind::thermalLimit, snapshot.limited());
                ++system;
                break;
            case DiagnosticKind::performanceLimit:
                EXPECT_TRUE(snapshot.limited());
                ++system;
                break;
            case DiagnosticKind::temperature:
            case DiagnosticKind::temperatureObservation:
                EXPECT_EQ(finding.value, finding.subject == "CPU"
                                             ? snapshot.cpuTemperature()
                                             : snapshot.temperature(SensorCategory::gpu));
                EXPECT_FALSE(snapshot.limited());
                ++system;
                break;
            case DiagnosticKind::memoryPressure:
                EXPECT_NE(snapshot.memoryPressure.value_or(MemoryPressure::normal),
                          MemoryPressure::normal);
                break;
            case DiagnosticKind::sustainedCPU:
                EXPECT_GE(input.processSeconds.value_or(0), 45);
                ++blamed;
                break;
            case DiagnosticKind::wakeRequests:
                EXPECT_EQ(finding.value, input.blockers);
                break;
            default:
                break;
        }
    }
    EXPECT_LE(system, 1);
    EXPECT_LE(blamed, 2);
    EXPECT_TRUE(std::ranges::is_sorted(report.findings, std::ranges::greater{},
                                       &DiagnosticFinding::severity));
    EXPECT_EQ(report.state == DiagnosticState::attention, report.attentionCount > 0);
    const bool known = snapshot.cpuTemperature() && snapshot.limitKnown() &&
                       snapshot.memoryPressure && input.processSeconds && input.blockers;
    EXPECT_FALSE(report.state == DiagnosticState::stable && !known);
}

TEST(DiagnosticPropertiesTest, FindingsNeverContradictTheSnapshotNorDependOnTheOrderOfSensors) {
    for (unsigned seed = 0; seed < 60; ++seed) {
        RandomInputs inputs(seed);
        DiagnosticEngine engine, shuffledEngine;
        for (int i = 0; i < 200; ++i) {
            const auto input = inputs.next();
            const auto report = engine.evaluate(input);
            checkAgainstSnapshot(report, input);

            auto shuffled = input;
            std::ranges::shuffle(shuffled.snapshot.sensors, inputs.engine());
            EXPECT_EQ(shuffledEngine.evaluate(shuffled), report);
            ASSERT_FALSE(HasFailure()) << "seed " << seed << ", input " << i;
        }
    }
}

TEST(DiagnosticPropertiesTest, ALongerGapNeverMakesALongerObservation) {
    for (unsigned seed = 0; seed < 100; ++seed) {
        std::mt19937 random(seed);
        // The same samples twice, once with every longer pause after a certain one.
        DiagnosticEngine engine, paused;
        double seconds = 0;
        double extra = 0;
        for (int i = 0; i < 100; ++i) {
            seconds += static_cast<double>(random() % 40) / 2;
            if (i == 30) {
                extra = 15.5 + static_cast<double>(random() % 100);
            }
            const auto report = engine.evaluate(withHeat(unremarkable(seconds), 95));
            const auto after = paused.evaluate(withHeat(unremarkable(seconds + extra), 95));
            ASSERT_LE(after.observedSeconds, report.observedSeconds) << seed << " " << i;
            ASSERT_LE(paused.hotSeconds(), engine.hotSeconds()) << seed << " " << i;
        }
    }
}

}  // namespace
}  // namespace ferovane
