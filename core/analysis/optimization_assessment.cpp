#include "core/analysis/optimization_assessment.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <utility>
#include <vector>

namespace ferovane {
namespace {

using enum OptimizationInterruption;
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

double lengthOf(const Samples& samples) {
    return samples.empty() ? 0 : samples.back().date - samples.front().date;
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

std::string_view title(OptimizationPhase phase) {
    switch (phase) {
        case OptimizationPhase::noChange:
            return "尚无更改";
        case OptimizationPhase::noBaseline:
            return "更改前的数据不足";
        case OptimizationPhase::settling:
            return "等待温度稳定";
        case OptimizationPhase::collecting:
            return "正在收集数据";
        case OptimizationPhase::interrupted:
            return "已中断，等待温度重新稳定";
        case OptimizationPhase::done:
            return "已完成";
    }
    return {};
}

std::string_view title(OptimizationInterruption interruption) {
    switch (interruption) {
        case pause:
            return "采样曾暂停";
        case clockSet:
            return "系统时钟被调整";
        case loadMissing:
            return "缺少处理器负载";
        case temperatureMissing:
            return "缺少处理器温度";
    }
    return {};
}

void OptimizationAssessment::append(const OptimizationSample& sample) {
    const ObservationClock::Step step = clock_.advance(sample.date);
    if (step == ObservationClock::Step::ignored) {
        return;
    }
    const bool hasLoad = sample.cpuUsage && std::isfinite(*sample.cpuUsage);
    const bool counts = hasLoad && sample.cpuTemperature && std::isfinite(*sample.cpuTemperature);
    if (!counts) {
        missing_ = hasLoad ? temperatureMissing : loadMissing;
    }
    if (step != ObservationClock::Step::continues) {
        interrupt(step == ObservationClock::Step::setBack ? clockSet : pause, sample.date);
        known_ = sample.date;
    } else if (sample.date - known_ > clock_.longestGapSeconds()) {
        interrupt(missing_, sample.date);
    }
    if (counts) {
        known_ = sample.date;
        add(sample);
    }
}

void OptimizationAssessment::interrupt(OptimizationInterruption why, Date date) {
    recent_.clear();
    done_ = done_ || windowSeconds() >= kShortestWindowSeconds;
    if (!done_) {
        state_.after.clear();
        interruption_ = why;
        settlesFrom_ = date;
    }
}

void OptimizationAssessment::add(const OptimizationSample& sample) {
    // Whoever noted the change may have seen a wrong date; nobody waits until it has come.
    settlesFrom_ = std::min(settlesFrom_, sample.date);
    if (state_.changed && !done_) {
        if (sample.date - settlesFrom_ < kSettleSeconds) {
            return;
        }
        state_.after.push_back(sample);
        done_ = lengthOf(state_.after) >= longest() || state_.after.size() >= kMostSamples;
    }
    while (!recent_.empty() && (sample.date - recent_.front().date > kLongestWindowSeconds ||
                                recent_.size() >= kMostSamples)) {
        recent_.pop_front();
    }
    recent_.push_back(sample);
}

void OptimizationAssessment::noteChange(Date date) {
    if (!isMoment(date)) {
        *this = OptimizationAssessment(clock_.longestGapSeconds());
        return;
    }
    Samples before = std::exchange(recent_, {});
    while (!before.empty() && before.back().date > date) {
        before.pop_back();
    }
    if (!before.empty() && date - before.back().date > clock_.longestGapSeconds()) {
        before.clear();
    }
    state_ = {date, std::move(before), {}};
    settlesFrom_ = date;
    interruption_.reset();
    done_ = false;
}

double OptimizationAssessment::longest() const {
    return state_.before.empty()
               ? 0
               : std::min(*state_.changed - state_.before.front().date, kLongestWindowSeconds);
}

double OptimizationAssessment::windowSeconds() const {
    return std::min(longest(), lengthOf(state_.after));
}

OptimizationResult OptimizationAssessment::assess() const {
    OptimizationResult result;
    result.windowSeconds = windowSeconds();
    if (result.windowSeconds < kShortestWindowSeconds) {
        return result;
    }
    const Date changed = *state_.changed;
    const Date from = state_.after.front().date;
    const Window before{state_.before, changed - result.windowSeconds, changed};
    const Window after{state_.after, from, from + result.windowSeconds};
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

OptimizationProgress OptimizationAssessment::progress() const {
    if (!state_.changed) {
        return {};
    }
    if (longest() < kShortestWindowSeconds) {
        return {OptimizationPhase::noBaseline, {}, 0};
    }
    if (done_) {
        return {OptimizationPhase::done, {}, 0};
    }
    if (!state_.after.empty()) {
        return {OptimizationPhase::collecting, {}, longest() - lengthOf(state_.after)};
    }
    const double settled = clock_.last().value_or(settlesFrom_) - settlesFrom_;
    return {interruption_ ? OptimizationPhase::interrupted : OptimizationPhase::settling,
            interruption_, std::clamp(kSettleSeconds - settled, 0.0, kSettleSeconds)};
}

bool OptimizationAssessment::restore(State state) {
    const auto all = {&state.before, &state.after};
    const bool possible = std::ranges::all_of(all, [&](const Samples* samples) {
        return samples->size() <= kMostSamples && (state.changed || samples->empty()) &&
               inOrder(&OptimizationSample::date, &OptimizationSample::date, *samples);
    });
    if (!possible || (state.changed && !isMoment(*state.changed)) ||
        (!state.before.empty() && state.before.back().date > *state.changed)) {
        return false;
    }
    *this = OptimizationAssessment(clock_.longestGapSeconds());
    state_ = std::move(state);
    if (state_.changed) {
        clock_.resume(state_.after.empty() ? *state_.changed : state_.after.back().date);
        interrupt(pause, *clock_.last());
    }
    return true;
}

}  // namespace ferovane
