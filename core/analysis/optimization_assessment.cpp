#include "core/analysis/optimization_assessment.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>
#include <utility>
#include <vector>

#include "core/analysis/numbers.h"

namespace ferovane {
namespace {

using enum OptimizationInterruption;
using Samples = std::deque<OptimizationSample>;
using Metric = std::optional<double> OptimizationSample::*;

struct Window {
    const Samples& samples;
    Date from, to;
};

double median(std::vector<double> values) {
    std::ranges::sort(values);
    return std::midpoint(values[(values.size() - 1) / 2], values[values.size() / 2]);
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
        if (const auto value = ifFinite(sample.*metric)) {
            values.push_back(*value);
        }
    }
    if (values.empty() || values.size() * 2 < samples) {
        return std::nullopt;
    }
    return median(std::move(values));
}

std::optional<OptimizationComparison> compare(Metric metric, const Window& before,
                                              const Window& after) {
    const auto first = medianOf(metric, before);
    const auto second = medianOf(metric, after);
    return first && second ? std::optional(OptimizationComparison{*first, *second}) : std::nullopt;
}

OptimizationVerdict verdictOn(double moreLoad, double moreCelsius) {
    using enum OptimizationVerdict;
    using Assessment = OptimizationAssessment;
    return std::abs(moreLoad) > Assessment::kLikeLoadPercent ? loadDiffers
           : moreCelsius <= -Assessment::kNotableCelsius     ? better
           : moreCelsius >= Assessment::kNotableCelsius      ? worse
                                                             : unchanged;
}

}  // namespace

std::string_view title(OptimizationVerdict verdict) {
    constexpr std::array<std::string_view, 5> kTitles{"数据不足", "负载不同，无法比较", "温度下降",
                                                      "没有明显变化", "温度上升"};
    return kTitles[static_cast<std::size_t>(verdict)];
}

std::string_view title(OptimizationPhase phase) {
    constexpr std::array<std::string_view, 6> kTitles{
        "尚无更改",     "更改前的数据不足",         "等待温度稳定",
        "正在收集数据", "已中断，等待温度重新稳定", "已完成"};
    return kTitles[static_cast<std::size_t>(phase)];
}

std::string_view title(OptimizationInterruption interruption) {
    constexpr std::array<std::string_view, 4> kTitles{"采样曾暂停", "系统时钟被调整",
                                                      "缺少处理器负载", "缺少处理器温度"};
    return kTitles[static_cast<std::size_t>(interruption)];
}

void OptimizationAssessment::append(const OptimizationSample& sample) {
    const ObservationClock::Step step = clock_.advance(sample.date);
    if (step == ObservationClock::Step::ignored) {
        return;
    }
    const bool hasLoad = ifFinite(sample.cpuUsage).has_value();
    const bool counts = hasLoad && ifFinite(sample.cpuTemperature);
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
    result.verdict = verdictOn(load->change(), temperature->change());
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
    const bool possible =
        std::ranges::all_of(std::array{&state.before, &state.after}, [&](auto it) {
            return it->size() <= kMostSamples && (state.changed || it->empty()) &&
                   inOrder(&OptimizationSample::date, &OptimizationSample::date, *it);
        });
    if (!possible || !isMoment(state.changed.value_or(Date()))) {
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
