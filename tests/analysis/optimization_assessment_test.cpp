#include "core/analysis/optimization_assessment.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/analysis/observation.h"

namespace ferovane::testing {
namespace {

// Samples from the first to the last second; without any, a change at the first.
struct Watched {
    int first, last;
    double celsius = 65, load = 40, step = 1;
};
using Timeline = std::vector<Watched>;
constexpr Watched changeAt(int second) {
    return {second, second - 1};
}

OptimizationAssessment observed(const Timeline& all) {
    OptimizationAssessment assessment;
    for (const Watched& it : all) {
        if (it.last < it.first) {
            assessment.noteChange(kStart + it.first);
        }
        for (double second = it.first; second <= it.last; second += it.step) {
            const auto rpm = it.celsius > 80 ? std::nullopt : std::optional(30 * it.celsius);
            assessment.append({kStart + second, it.load, it.celsius, rpm, it.load / 2});
        }
    }
    return assessment;
}

TEST(OptimizationAssessmentTest, ComparesMediansOfLikeWindowsBeforeAndAfterAChange) {
    using enum OptimizationVerdict;
    const Watched old{-600, -1, 70}, edit = changeAt(0), now{0, 660};
    const int days = -1'000'000;
    const Watched later{days, days + 399, 70}, latest{days + 400, days + 700};
    const struct {
        Timeline watched;
        OptimizationVerdict verdict = notEnoughData;
        double seconds = 0;
        OptimizationComparison celsius = {70, 65}, load = {40, 40};  // not without enough data
    } cases[] = {
        {{}},
        {{old, {0, 400, 70}}},
        {{{-120, -1, 70}, edit, {0, 180}}, better, 120},
        {{{-119, -1, 70}, edit, now}, notEnoughData, 119},
        {{old, edit, {0, 179}}, notEnoughData, 119},
        {{{-2000, -1, 70}, edit, {0, 2000}}, better, 600},
        {{{-600, -1, 70, 40, 0.0625}, edit, now}, better, 375.9375},
        {{old, edit, {0, 660, 65, 30}}, better, 600, {70, 65}, {40, 30}},
        {{old, edit, {0, 660, 60, 29.9}}, loadDiffers, 600, {70, 60}, {40, 29.9}},
        {{old, edit, {0, 660, 90, 50.1}}, loadDiffers, 600, {70, 90}, {40, 50.1}},
        {{old, edit, {0, 660, 68}}, better, 600, {70, 68}},
        {{old, edit, {0, 660, 68.1}}, unchanged, 600, {70, 68.1}},
        {{old, edit, {0, 660, 71.9}}, unchanged, 600, {70, 71.9}},
        {{old, edit, {0, 660, 72}}, worse, 600, {70, 72}},
        // Peaks, settling, and what lies outside the windows.
        {{{-600, -201, 20}, {-200, -99, 70}, {-98, -1, 105}, edit, {0, 260}}, better, 200},
        {{old, edit, {0, 59, 99}, {60, 361}, {362, 660, 99}}, better, 600},
        {{{-300, -1, 70}, edit, {0, 360}, {361, 660, 99}}, better, 300},
        {{{-200, -101, 70}, {-100, -1, 72}, edit, {0, 260}}, better, 200, {71, 65}},
        // Every other sample suffices.
        {{{-300, -151, kNaN}, {-150, -1, 70}, edit, now}, better, 300},
        {{{-300, -150, kNaN}, {-149, -1, 70}, edit, now}, notEnoughData, 300},
        {{old, edit, {0, 209, kNaN}, {210, 360}}, better, 300},
        {{old, edit, {0, 210, 65, kNaN}, {211, 360}}, notEnoughData, 300},
        // Gaps, other changes, a late note, a clock that is set back.
        {{{-600, -201, 20}, {-185, -1, 70}, edit, now}, better, 185},
        {{{-600, -195, 70}, {-180, -1, 70}, edit, now}, better, 600},
        {{old, edit, {0, 360}, {376, 700, 99, 90}}, better, 300},
        {{old, edit, {0, 30}, {90, 900}}},
        {{{-600, -16, 70}, edit, now}},
        {{{-300, -1, 70}, {1, 5}, edit, {6, 660}}, better, 300},
        {{old, edit, {0, 199}, changeAt(200)}},
        {{old, edit, {0, 59, 99}, {60, 199}, changeAt(200), {200, 660}}, unchanged, 140, {65, 65}},
        {{old, edit, {0, 30}, {days, days + 400}}},
        {{old, edit, {0, 30}, later, changeAt(days + 400), latest}, better, 240},
    };
    for (const auto& it : cases) {
        SCOPED_TRACE(&it - cases);
        OptimizationAssessment assessment = observed(it.watched);
        OptimizationResult told{it.verdict, it.seconds, {}, {}, {}, {}};
        if (it.verdict != notEnoughData) {
            told = {it.verdict, it.seconds, it.load, it.celsius, {}, {}};
            told.watts = {it.load.before / 2, it.load.after / 2};
            if (it.celsius.after < 80) {
                told.fanRpm = {30 * it.celsius.before, 30 * it.celsius.after};
            }
        }
        EXPECT_EQ(assessment.assess(), told) << assessment.assess().windowSeconds;
        assessment.append({Date{kNaN}, 90, 99, 9, 9});
        EXPECT_EQ(assessment.assess(), told) << "no moment at all";
        assessment.noteChange(Date{kInfinity});
        EXPECT_EQ(assessment.assess(), OptimizationResult{});
    }
    std::string titles;
    for (int verdict = 0; verdict < 5; ++verdict) {
        titles.append(title(OptimizationVerdict(verdict))).append(" ");
    }
    EXPECT_EQ(titles, "数据不足 负载不同，无法比较 温度下降 没有明显变化 温度上升 ");
}

}  // namespace
}  // namespace ferovane::testing
