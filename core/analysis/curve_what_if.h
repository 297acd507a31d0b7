// What a fan curve would have done on days that were recorded, and which curve fulfils a wish.
// Pure: no clock, no files; everything may be called from any thread.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "core/analysis/heat_model.h"
#include "core/fan/fan_curve.h"

namespace ferovane {

enum class CurveFigure {
    meanCelsius,
    highCelsius,     // the 95th percentile
    minutesAbove85,  // degrees Celsius, of a day
    minutesAbove95,
    meanRpm,
    changesPerHour,  // of the target, as a lease writes it; of the speed, where there was none
};
inline constexpr std::size_t kCurveFigures = 6;
std::string_view title(CurveFigure figure);

using CurveFigures = std::array<double, kCurveFigures>;  // by figure

// After minus before, and where the refits of the model would have it.
struct CurveDifference {
    double change = 0, low = 0, high = 0;
};

enum class CurveNote {
    powerAsRecorded,  // always: a cooler machine might have worked faster
    fromLoad,         // no watts were recorded, and the ranges are twice as wide
    unseenSpeeds,     // over 15 percent slower or faster than was ever seen
};
std::string_view title(CurveNote note);

struct CurveWhatIf {
    CurveFigures before{}, after{};
    std::array<CurveDifference, kCurveFigures> differences{};  // by figure
    std::vector<CurveNote> notes;
};

// The die in degrees Celsius and the mean of the fans in rpm, by step, one day after the other.
struct CurveRun {
    std::vector<double> die, rpm;
    std::size_t changes = 0;
};

// Days as a model follows them, ready to be run again under any curve.
class CurveReplay {
public:
    CurveReplay(const HeatModel& model, std::span<const RecordedDay> days);

    // As they would have gone under a lease with this curve: what was read, and what the other fan
    // speeds make of it. Without a curve it is what was read. The temperature that was recorded as
    // the die's counts as the curve's, and as the processor's for what overrules a curve.
    CurveRun under(const std::optional<FanCurve>& curve) const;

private:
    HeatModel model_;
    std::vector<RecordedDay::Step> steps_;
    std::vector<double> aboveRoom_;  // by step
};

// On days that need not be those of the fit. `before` is absent when the fans were left to the
// system. Throws a ScopeError with the fit's refusal, with the rule that a curve breaks, or when
// the days are not fit for it.
CurveWhatIf whatIf(const HeatFit& fit, std::span<const RecordedDay> days,
                   const std::optional<FanCurve>& before, const FanCurve& after);

// The least loud curve that would have kept the die at `celsius` or below, but for one minute in a
// hundred; it is valid. Throws like whatIf, and for a wish outside kWishes or one that not even
// full speed fulfils.
inline constexpr JsonRange kWishes{60, 90};  // degrees Celsius
FanCurve quietestCurve(const HeatFit& fit, std::span<const RecordedDay> days, double celsius,
                       CurveSensor sensor);

}  // namespace ferovane
