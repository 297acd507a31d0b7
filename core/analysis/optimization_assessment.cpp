#include "core/analysis/optimization_assessment.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <utility>
#include <vector>

#include "core/analysis/observation_clock.h"

namespace ferovane {
namespace {

using Samples = std::deque<OptimizationSample>;
using Metric = std::optional<double> OptimizationSample::*;

struct Window {
    const Samples& samples;
    Date from, to;
};

double median(std::vector<double>& values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    if (values.size() % 2 == 1) {
        return *middle;
    }
    return std::midpoint(*std::max_element(values.begin(), middle), *middle);
}

// Absent when more than half of the samples do not have it.
std::optional<double> medianOf(Metric metric, const Window& window) {
    std::vector<double> values;
    std::size_t samples = 0;
    for (const OptimizationSample& sample : window.samples) {
        if (sample.date < window.from || sample.date > window.to) {
            continue;
        }
        ++samples;
        if (const auto& value = sample.*metric; value && std::isfinite(*value)) {
            values.push_back(*value);
        }
    }
    if (values.empty() || values.size() * 2 < samples) {
        return std::nullopt;
    }
    return median(values);
}

std::optional<OptimizationComparison> compare(Metric metric, const Window& before,
                                              const Window& after) {
    const auto first = medianOf(metric, before);
    const auto second = medianOf(metric, after);
    return first && second ? std::optional(OptimizationComparison{*first, *second}) : std::nullopt;
}

OptimizationVerdict verdictOn(const OptimizationResult& result) {
    using Assessment = OptimizationAssessment;
    if (std::abs(result.cpuUsage->change()) > Assessment::kLikeLoadPercent) {
        return OptimizationVerdict::loadDiffers;
    }
    const double celsius = result.cpuTemperature->change();
    if (celsius <= -Assessment::kNotableCelsius) {
        return OptimizationVerdict::better;
    }
    return celsius >= Assessment::kNotableCelsius ? OptimizationVerdict::worse
                                                  : OptimizationVerdict::unchanged;
}

}  // namespace

std::string_view title(OptimizationVerdict verdict) {
    switch (verdict) {
        case OptimizationVerdict::notEnoughData:
            return "数据不足";
        case OptimizationVerdict::loadDiffers:
            return "负载不同，无法比较";
        case OptimizationVerdict::better:
            return "温度下降";
        case OptimizationVerdict::unchanged:
            return "没有明显变化";
        case OptimizationVerdict::worse:
            return "温度上升";
    }
    return {};
}

void OptimizationAssessment::append(const OptimizationSample& sample) {
    if (!std::isfinite(sample.date.secondsSinceReference)) {
        return;
    }
    const bool setBack = last_ && sample.date < *last_;
    if (!continuesObservation(last_, sample.date)) {
        recent_.clear();
        interrupted_ = changed_.has_value() && last_.has_value();
    }
    last_ = sample.date;
    // A clock that was set back leaves no telling how long ago the change was, and waiting until it
    // has caught up could take days.
    settling_ = settling_ && !setBack && sample.date - *changed_ < kSettleSeconds;
    if (settling_) {
        return;
    }
    const bool afterIsFull =
        !after_.empty() && (sample.date - after_.front().date > kLongestWindowSeconds ||
                            after_.size() >= kMostSamples);
    if (changed_ && !interrupted_ && !afterIsFull) {
        after_.push_back(sample);
    }
    while (!recent_.empty() && (sample.date - recent_.front().date > kLongestWindowSeconds ||
                                recent_.size() >= kMostSamples)) {
        recent_.pop_front();
    }
    recent_.push_back(sample);
}

void OptimizationAssessment::noteChange(Date date) {
    if (!std::isfinite(date.secondsSinceReference)) {
        *this = {};
        return;
    }
    before_ = std::exchange(recent_, {});
    while (!before_.empty() && before_.back().date > date) {
        before_.pop_back();
    }
    if (!before_.empty() && date - before_.back().date > kLongestGapSeconds) {
        before_.clear();
    }
    after_.clear();
    changed_ = date;
    settling_ = true;
    interrupted_ = false;
}

OptimizationResult OptimizationAssessment::assess() const {
    OptimizationResult result;
    if (!changed_ || before_.empty() || after_.empty()) {
        return result;
    }
    result.windowSeconds =
        std::min({*changed_ - before_.front().date, after_.back().date - after_.front().date,
                  kLongestWindowSeconds});
    if (result.windowSeconds < kShortestWindowSeconds) {
        return result;
    }
    const Window before{before_, *changed_ - result.windowSeconds, *changed_};
    const Date from = after_.front().date;
    const Window after{after_, from, from + result.windowSeconds};
    const auto load = compare(&OptimizationSample::cpuUsage, before, after);
    const auto temperature = compare(&OptimizationSample::cpuTemperature, before, after);
    if (!load || !temperature) {
        return result;
    }
    result.cpuUsage = load;
    result.cpuTemperature = temperature;
    result.fanRpm = compare(&OptimizationSample::fanRpm, before, after);
    result.watts = compare(&OptimizationSample::watts, before, after);
    result.verdict = verdictOn(result);
    return result;
}

}  // namespace ferovane
