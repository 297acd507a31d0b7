#include "core/analysis/optimization_assessment.h"

#include <gtest/gtest.h>

#include <functional>

#include "tests/analysis/unremarkable.h"

namespace ferovane {
namespace {

using testing::kStart;

using Verdict = OptimizationVerdict;
using Edit = std::function<void(OptimizationSample&, int second)>;

// A sample a second from `first` to `last`, with the change at second 0: 70 °C before, 65 °C after.
void observe(OptimizationAssessment& assessment, int first, int last, const Edit& edit = {}) {
    for (int second = first; second <= last; ++second) {
        if (second == 0) {
            assessment.noteChange(kStart);
        }
        OptimizationSample sample{kStart + second, 40, second < 0 ? 70 : 65, 2000, 20};
        if (edit) {
            edit(sample, second);
        }
        assessment.append(sample);
    }
}

OptimizationResult result(int first, int last, const Edit& edit = {}) {
    OptimizationAssessment assessment;
    observe(assessment, first, last, edit);
    return assessment.assess();
}

TEST(OptimizationAssessmentTest, WantsTwoMinutesOnBothSides) {
    EXPECT_EQ(OptimizationAssessment().assess().verdict, Verdict::notEnoughData);
    EXPECT_EQ(result(-120, 60 + 119).verdict, Verdict::notEnoughData);
    EXPECT_EQ(result(-119, 60 + 120).verdict, Verdict::notEnoughData);
    EXPECT_EQ(result(-119, 60 + 120).windowSeconds, 119);
    EXPECT_EQ(result(-300, -1).verdict, Verdict::notEnoughData) << "there was no change";
    const auto shortest = result(-120, 60 + 120);
    EXPECT_EQ(shortest.verdict, Verdict::better);
    EXPECT_EQ(shortest.windowSeconds, 120);
    EXPECT_EQ(shortest.cpuTemperature, (OptimizationComparison{70, 65}));
    EXPECT_EQ(shortest.watts, (OptimizationComparison{20, 20}));
    EXPECT_EQ(result(-3000, 3000).windowSeconds, 600);
}

TEST(OptimizationAssessmentTest, ComparesMediansOfWindowsOfTheSameLength) {
    const auto odd = result(-1000, 60 + 200, [](OptimizationSample& sample, int second) {
        if (second < -200) {
            sample.cpuTemperature = 20;  // outside a window of 200 s
        } else if (second >= 0 && second < 60) {
            sample.cpuTemperature = 99;  // still settling
        } else if (second % 3 == 0) {
            sample.cpuTemperature = 105;  // peaks, fewer than half
        }
        sample.fanRpm = second < 0 ? std::nullopt : std::optional(3000.0);
    });
    EXPECT_EQ(odd.windowSeconds, 200);
    EXPECT_EQ(odd.cpuTemperature, (OptimizationComparison{70, 65}));
    EXPECT_EQ(odd.fanRpm, std::nullopt) << "nothing to compare it with";

    const struct {
        double loadAfter, celsiusAfter;
        Verdict verdict;
    } cases[] = {{40, 68, Verdict::better},       {40, 68.1, Verdict::unchanged},
                 {40, 71.9, Verdict::unchanged},  {40, 72, Verdict::worse},
                 {30, 60, Verdict::better},       {29.9, 60, Verdict::loadDiffers},
                 {50.1, 90, Verdict::loadDiffers}};
    for (const auto& expected : cases) {
        const auto told = result(-200, 300, [&](OptimizationSample& sample, int second) {
            if (second >= 0) {
                sample.cpuUsage = expected.loadAfter;
                sample.cpuTemperature = expected.celsiusAfter;
            }
        });
        EXPECT_EQ(told.verdict, expected.verdict) << expected.celsiusAfter;
        EXPECT_FALSE(title(told.verdict).empty());
    }
}

TEST(OptimizationAssessmentTest, SaysWhenDataDoNotSuffice) {
    const auto without = [](int every, bool before) {
        return result(-300, 360, [=](OptimizationSample& sample, int second) {
            if ((second < 0) == before && second % every != 0) {
                sample.cpuTemperature.reset();
            }
        });
    };
    for (const bool before : {false, true}) {
        EXPECT_EQ(without(2, before).verdict, Verdict::better) << "every other sample suffices";
        EXPECT_EQ(without(3, before).verdict, Verdict::notEnoughData);
        EXPECT_EQ(without(3, before).cpuUsage, std::nullopt);
    }
}

TEST(OptimizationAssessmentTest, ReachesOverNoGapAndNoOtherChange) {
    OptimizationAssessment assessment;
    observe(assessment, -600, -200);
    observe(assessment, -180, 360);
    EXPECT_EQ(assessment.assess().windowSeconds, 180) << "the machine slept 20 s before";

    assessment.append({kStart + 380, 90, 99, 9, 9});
    observe(assessment, 381, 700);
    EXPECT_EQ(assessment.assess().windowSeconds, 180);
    EXPECT_EQ(assessment.assess().cpuUsage, (OptimizationComparison{40, 40}));

    // A second change: its own window before begins once the heat of the first had settled.
    OptimizationAssessment twice;
    observe(twice, -600, 199);
    twice.noteChange(kStart + 200);
    EXPECT_EQ(twice.assess().verdict, Verdict::notEnoughData);
    observe(twice, 200, 600);
    EXPECT_EQ(twice.assess().windowSeconds, 140);
    EXPECT_EQ(twice.assess().verdict, Verdict::unchanged);

    // The clock is set back by days while the heat settles: the next change has its window before.
    OptimizationAssessment setBack;
    observe(setBack, -600, 30);
    const auto later = [](OptimizationSample& sample, int) { sample.date = sample.date - 1e6; };
    for (int second = 31; second <= 400; ++second) {
        OptimizationSample sample{kStart + second, 40, 65, 2000, 20};
        later(sample, second);
        setBack.append(sample);
    }
    EXPECT_EQ(setBack.assess().verdict, Verdict::notEnoughData);
    setBack.noteChange(kStart + 400 - 1e6);
    for (int second = 401; second <= 700; ++second) {
        OptimizationSample sample{kStart + second, 40, 60, 2000, 20};
        later(sample, second);
        setBack.append(sample);
    }
    EXPECT_EQ(setBack.assess().verdict, Verdict::better);

    // A change that is noted late: what was measured since does not count as before it.
    OptimizationAssessment late;
    observe(late, -300, -1);
    observe(late, 1, 5);
    late.noteChange(kStart);
    observe(late, 6, 400);
    EXPECT_EQ(late.assess().windowSeconds, 300);
    EXPECT_EQ(late.assess().cpuTemperature, (OptimizationComparison{70, 65}));

    // A gap while the heat settles: nobody knows what was done meanwhile.
    OptimizationAssessment slept;
    observe(slept, -600, 30);
    observe(slept, 90, 900);
    EXPECT_EQ(slept.assess().verdict, Verdict::notEnoughData);
}

}  // namespace
}  // namespace ferovane
