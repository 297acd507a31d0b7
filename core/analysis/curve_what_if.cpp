#include "core/analysis/curve_what_if.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <string>

#include "core/analysis/numbers.h"
#include "core/fan/curve_policy.h"
#include "core/model/scope_error.h"

namespace ferovane {
namespace {

constexpr double kHighPart = 0.95;
constexpr double kWarmCelsius = 85, kHotCelsius = 95;  // degrees Celsius
constexpr double kUnseenMargin = 0.15;
constexpr double kUnseenPart = 0.01;  // of the time
constexpr double kLoadDoubt = 2;      // how much wider a range is that rests on load alone

constexpr double kMayExceedPart = 0.01;  // of the time, for a wish
// Ten times as fast is 50 dB more, and 10 dB are twice as loud.
constexpr double kLoudnessExponent = 1.5;
constexpr double kFullAboveWish = 5;                           // K
constexpr std::array kBelowFull{30.0, 22.0, 15.0, 10.0, 5.0};  // K, where a proposal has points
constexpr double kProposalSteps[] = {20, 5};                   // percent

double minutes(double steps) {
    return steps * RecordedDay::kStepSeconds / 60;
}

double partAbove(const std::vector<double>& values, double limit) {
    const auto above = std::count_if(values.begin(), values.end(),
                                     [limit](double value) { return value > limit; });
    return static_cast<double>(above) / static_cast<double>(values.size());
}

double meanOf(const std::vector<double>& values) {
    return std::accumulate(values.begin(), values.end(), 0.0) / static_cast<double>(values.size());
}

CurveFigures figuresOf(const CurveRun& run, std::size_t days) {
    const double all = minutes(static_cast<double>(run.die.size()));
    const double aDay = all / static_cast<double>(days);
    return {meanOf(run.die),
            quantile(run.die, kHighPart),
            aDay * partAbove(run.die, kWarmCelsius),
            aDay * partAbove(run.die, kHotCelsius),
            meanOf(run.rpm),
            static_cast<double>(run.changes) * 60 / all};
}

void requireUsable(const HeatFit& fit, std::span<const RecordedDay> days) {
    if (fit.refusal) {
        throw ScopeError(std::string(title(*fit.refusal)));
    }
    const bool usable = !days.empty() && std::all_of(days.begin(), days.end(), [&](auto& day) {
        return !day.steps.empty() && (fit.model.fromLoad ? day.hasLoad : day.hasWatts);
    });
    if (!usable) {
        throw ScopeError("所选日期的记录不完整，无法推算曲线");
    }
}

double loudness(const CurveRun& run) {
    return std::accumulate(run.rpm.begin(), run.rpm.end(), 0.0, [](double sum, double rpm) {
        return sum + std::pow(rpm, kLoudnessExponent);
    });
}

}  // namespace

std::string_view title(CurveFigure figure) {
    constexpr std::array<std::string_view, kCurveFigures> kTitles{
        "平均温度（°C）",        "95% 的时间不高于（°C）", "每天高于 85°C（分钟）",
        "每天高于 95°C（分钟）", "平均转速（RPM）",        "每小时调速次数"};
    return kTitles[static_cast<std::size_t>(figure)];
}

std::string_view title(CurveNote note) {
    constexpr std::array<std::string_view, 3> kTitles{"功耗按记录计算，未计入降频的变化",
                                                      "没有功耗记录，按负载推算，误差范围加倍",
                                                      "转速超出记录过的范围，结果仅供参考"};
    return kTitles[static_cast<std::size_t>(note)];
}

CurveReplay::CurveReplay(const HeatModel& model, std::span<const RecordedDay> days)
    : model_(model) {
    for (const RecordedDay& day : days) {
        const HeatTrack track = follow(model, day);
        steps_.insert(steps_.end(), day.steps.begin(), day.steps.end());
        aboveRoom_.insert(aboveRoom_.end(), track.aboveRoom.begin(), track.aboveRoom.end());
    }
}

CurveRun CurveReplay::under(const std::optional<FanCurve>& curve) const {
    const double inertia = model_.sinkSeconds / RecordedDay::kStepSeconds;
    CurveRun run;
    std::optional<double> percent;
    double warmer = 0;   // than it was, in K
    double written = 0;  // rpm
    for (std::size_t i = 0; i < steps_.size(); ++i) {
        const RecordedDay::Step& step = steps_[i];
        const bool begins = step.begins || i == 0;
        if (begins) {
            percent.reset();
            warmer = 0;
        }
        const double die = step.die + warmer;
        double target = step.rpm;
        if (curve) {
            const bool hot = CurvePolicy::requiresMaximum(die);
            const double asked = hot ? FanCurve::kFullPercent : curve->percent(die);
            percent = CurvePolicy::followed(percent, asked);
            target = CurvePolicy::rpm(*percent, model_.range.minimum, model_.range.maximum);
        }
        if (begins || CurvePolicy::isWorthWriting(written, target)) {
            written = target;
            run.changes += begins ? 0 : 1;
        }
        run.die.push_back(die);
        run.rpm.push_back(curve ? written : step.rpm);
        if (curve) {
            const double cooling = model_.cooling(model_.flow(written));
            const double less = model_.cooling(model_.flow(step.rpm)) - cooling;
            warmer = (inertia * warmer + less * aboveRoom_[i]) / (inertia + cooling);
        }
    }
    return run;
}

CurveWhatIf whatIf(const HeatFit& fit, std::span<const RecordedDay> days,
                   const std::optional<FanCurve>& before, const FanCurve& after) {
    requireUsable(fit, days);
    if (before) {
        before->validate();
    }
    after.validate();
    const auto figures = [&](const CurveReplay& replay, const std::optional<FanCurve>& curve) {
        return figuresOf(replay.under(curve), days.size());
    };
    const CurveReplay replay(fit.model, days);
    const CurveRun run = replay.under(after);
    CurveWhatIf result;
    result.after = figuresOf(run, days.size());
    result.before = figures(replay, before);
    for (std::size_t i = 0; i < kCurveFigures; ++i) {
        const double change = result.after[i] - result.before[i];
        result.differences[i] = {change, change, change};
    }
    const double doubt = fit.model.fromLoad ? kLoadDoubt : 1;
    for (const HeatModel& refit : fit.refits) {
        const CurveReplay other(refit, days);
        const CurveFigures now = figures(other, before), then = figures(other, after);
        for (std::size_t i = 0; i < kCurveFigures; ++i) {
            auto& [change, low, high] = result.differences[i];
            const double doubtful = change + doubt * (then[i] - now[i] - change);
            low = std::min(low, doubtful);
            high = std::max(high, doubtful);
        }
    }
    result.notes.push_back(CurveNote::powerAsRecorded);
    if (fit.model.fromLoad) {
        result.notes.push_back(CurveNote::fromLoad);
    }
    const double seen = partAbove(run.rpm, fit.slowest * (1 - kUnseenMargin)) -
                        partAbove(run.rpm, fit.fastest * (1 + kUnseenMargin));
    if (seen < 1 - kUnseenPart) {
        result.notes.push_back(CurveNote::unseenSpeeds);
    }
    return result;
}

FanCurve quietestCurve(const HeatFit& fit, std::span<const RecordedDay> days, double celsius,
                       CurveSensor sensor) {
    if (!kWishes.admits(celsius)) {
        throw ScopeError("期望温度范围为 60–90°C");
    }
    requireUsable(fit, days);
    const double full = std::min(celsius + kFullAboveWish, FanCurve::kFullSpeedCelsius);
    FanCurve curve{{}, sensor};
    for (const double below : kBelowFull) {
        curve.points.push_back({full - below, FanCurve::kFullPercent});
    }
    curve.points.push_back({full, FanCurve::kFullPercent});
    const CurveReplay replay(fit.model, days);
    CurveRun run = replay.under(curve);
    if (partAbove(run.die, celsius) > kMayExceedPart) {
        throw ScopeError("即使全速运转也无法满足期望温度");
    }
    // Lowers one point after the other, with those below it, for as long as the wish is fulfilled.
    for (const double step : kProposalSteps) {
        for (bool lowered = true; lowered;) {
            lowered = false;
            for (std::size_t i = 0; i + 1 < curve.points.size(); ++i) {
                FanCurve next = curve;
                const double percent = std::max(next.points[i].percent - step, 0.0);
                for (std::size_t k = 0; k <= i; ++k) {
                    next.points[k].percent = std::min(next.points[k].percent, percent);
                }
                CurveRun nextRun = replay.under(next);
                if (partAbove(nextRun.die, celsius) <= kMayExceedPart &&
                    loudness(nextRun) < loudness(run)) {
                    curve = std::move(next);
                    run = std::move(nextRun);
                    lowered = true;
                }
            }
        }
    }
    return curve;
}

}  // namespace ferovane
