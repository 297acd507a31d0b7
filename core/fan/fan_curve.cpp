#include "core/fan/fan_curve.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "core/model/scope_error.h"

namespace ferovane {
namespace {

constexpr double kMinimumStepCelsius = 2.0;  // a steeper rise would follow a sensor's noise

bool isInRange(const CurvePoint& point) {
    return CurvePoint::kCelsius.admits(point.temperature) &&
           CurvePoint::kPercent.admits(point.percent);
}

bool follows(const CurvePoint& point, const CurvePoint& previous) {
    return point.temperature >= previous.temperature + kMinimumStepCelsius &&
           point.percent >= previous.percent;
}

}  // namespace

std::optional<double> temperature(CurveSensor sensor, const Snapshot& snapshot) {
    const std::optional<double> cpu = snapshot.cpuTemperature();
    const std::optional<double> gpu = snapshot.temperature(SensorCategory::gpu);
    switch (sensor) {
        case CurveSensor::cpu:
            return cpu;
        case CurveSensor::gpu:
            return gpu;
        case CurveSensor::hottest:
            break;
    }
    if (cpu && gpu) {
        return std::max(*cpu, *gpu);
    }
    return cpu ? cpu : gpu;
}

const FanCurve& FanCurve::quiet() {
    static const FanCurve curve{{{40, 0}, {55, 8}, {70, 25}, {80, 60}, {90, 100}},
                                CurveSensor::hottest};
    return curve;
}

const FanCurve& FanCurve::balanced() {
    static const FanCurve curve{{{40, 10}, {55, 25}, {70, 55}, {80, 80}, {90, 100}},
                                CurveSensor::hottest};
    return curve;
}

const FanCurve& FanCurve::performance() {
    static const FanCurve curve{{{40, 30}, {55, 50}, {65, 75}, {75, 95}, {85, 100}},
                                CurveSensor::hottest};
    return curve;
}

FanCurve FanCurve::manual(double percent) {
    const double held =
        std::isfinite(percent) ? std::clamp(percent, 0.0, kFullPercent) : kFullPercent;
    return {{{30, held}, {80, held}, {kFullSpeedCelsius, kFullPercent}}, CurveSensor::hottest};
}

void FanCurve::validate() const {
    if (!kPoints.admits(points.size())) {
        throw ScopeError("曲线需要 2 至 8 个控制点", ResultCode::invalid);
    }
    for (std::size_t i = 0; i < points.size(); ++i) {
        if (!isInRange(points[i])) {
            throw ScopeError("曲线温度范围为 30–100°C，转速范围为 0–100%", ResultCode::invalid);
        }
        if (i > 0 && !follows(points[i], points[i - 1])) {
            throw ScopeError("温度控制点至少间隔 2°C，转速必须随温度升高而不降低",
                             ResultCode::invalid);
        }
    }
    if (points.back().temperature > kFullSpeedCelsius || points.back().percent != kFullPercent) {
        throw ScopeError("最后一个点必须在 90°C 或更低达到 100% 转速", ResultCode::invalid);
    }
}

double FanCurve::percent(double celsius) const {
    if (points.empty() || !std::isfinite(celsius)) {
        return kFullPercent;
    }
    if (celsius <= points.front().temperature) {
        return points.front().percent;
    }
    if (celsius >= points.back().temperature) {
        return points.back().percent;
    }
    const auto above = std::find_if(points.begin(), points.end(), [&](const CurvePoint& point) {
        return point.temperature >= celsius;
    });
    if (above == points.begin() || above == points.end()) {
        return kFullPercent;  // only a curve whose points are no numbers comes here
    }
    const CurvePoint& below = *(above - 1);
    const double between = below.percent + (above->percent - below.percent) *
                                               (celsius - below.temperature) /
                                               (above->temperature - below.temperature);
    // Rounding may take it past the end of the segment.
    const auto [low, high] = std::minmax(below.percent, above->percent);
    return std::clamp(between, low, high);
}

}  // namespace ferovane
