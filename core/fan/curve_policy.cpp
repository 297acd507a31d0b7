#include "core/fan/curve_policy.h"

#include <algorithm>
#include <cmath>

#include "core/fan/fan_curve.h"

namespace ferovane::CurvePolicy {
namespace {

constexpr double kHotCpuCelsius = 92;
constexpr double kHotGpuCelsius = 88;
constexpr double kHotStorageCelsius = 75;
constexpr int kSeriousThermalState = 2;
constexpr int kCriticalThermalState = 3;
constexpr double kSlowFraction = 0.1;  // of a fan's rated range
constexpr double kFallPerRoundPercent = 4.0;
constexpr double kDeadBandRpm = 30.0;

bool isAtLeast(const std::optional<double>& celsius, double limit) {
    return celsius && *celsius >= limit;
}

bool isSlow(const FanReading& fan) {
    if (!fan.rpm || !fan.minimum || !fan.maximum) {
        return false;
    }
    const double rpm = *fan.rpm, minimum = *fan.minimum, maximum = *fan.maximum;
    return std::isfinite(rpm) && std::isfinite(minimum) && std::isfinite(maximum) && rpm >= 0 &&
           minimum >= 0 && maximum > minimum &&
           rpm <= minimum + kSlowFraction * (maximum - minimum);
}

}  // namespace

double percent(double rpm, double minimum, double maximum) {
    if (!std::isfinite(rpm) || !std::isfinite(minimum) || !std::isfinite(maximum) ||
        minimum >= maximum) {
        return 0;
    }
    return std::clamp((rpm - minimum) / (maximum - minimum) * 100, 0.0, 100.0);
}

double rpm(double percent, double minimum, double maximum) {
    return minimum + (maximum - minimum) * percent / FanCurve::kFullPercent;
}

double followed(std::optional<double> previous, double desired) {
    return std::clamp(previous ? std::max(desired, *previous - kFallPerRoundPercent) : desired, 0.0,
                      FanCurve::kFullPercent);
}

bool isWorthWriting(double last, double rpm) {
    return std::abs(rpm - last) >= kDeadBandRpm;
}

bool requiresMaximum(double cpuCelsius) {
    return cpuCelsius >= kHotCpuCelsius;
}

bool requiresMaximum(const Snapshot& snapshot) {
    return isAtLeast(snapshot.cpuTemperature(), kHotCpuCelsius) ||
           isAtLeast(snapshot.temperature(SensorCategory::gpu), kHotGpuCelsius) ||
           isAtLeast(snapshot.temperature(SensorCategory::storage), kHotStorageCelsius) ||
           snapshot.thermalState == kSeriousThermalState ||
           snapshot.thermalState == kCriticalThermalState;
}

bool highTemperatureWithLowFanSpeed(const Snapshot& snapshot) {
    return requiresMaximum(snapshot) && !snapshot.fans.empty() &&
           std::all_of(snapshot.fans.begin(), snapshot.fans.end(), isSlow);
}

}  // namespace ferovane::CurvePolicy
