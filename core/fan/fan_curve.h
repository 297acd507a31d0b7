// Fan curves: one temperature to one fan speed, as a percentage of each fan's rated range.
#pragma once

#include <array>
#include <optional>
#include <string_view>
#include <tuple>
#include <vector>

#include "core/model/json_fields.h"
#include "core/model/raw_enum.h"
#include "core/model/snapshot.h"

namespace ferovane {

// The temperature that a curve follows.
enum class CurveSensor { cpu, gpu, hottest };

template <>
struct RawEnum<CurveSensor> {
    static constexpr std::array<RawCase<CurveSensor>, 3> cases{{
        {CurveSensor::cpu, "CPU"},
        {CurveSensor::gpu, "GPU"},
        {CurveSensor::hottest, "CPU / GPU 较高温"},
    }};
};

// Degrees Celsius; `hottest` is the larger of what is available. Absent when nothing is.
std::optional<double> temperature(CurveSensor sensor, const Snapshot& snapshot);

struct CurvePoint {
    double temperature = 0;  // degrees Celsius
    double percent = 0;      // of the rated range, 0 to 100

    static constexpr JsonRange kCelsius{30, 100};
    static constexpr JsonRange kPercent{0, 100};

    bool operator==(const CurvePoint&) const = default;

    static constexpr auto jsonFields() {
        return std::tuple{jsonField("temperature", &CurvePoint::temperature, kCelsius,
                                    JsonNote{"degrees Celsius"}),
                          jsonField("percent", &CurvePoint::percent, kPercent,
                                    JsonNote{"of each fan's rated range"})};
    }
};

struct FanCurve {
    std::vector<CurvePoint> points;  // by rising temperature
    CurveSensor sensor = CurveSensor::hottest;

    static constexpr JsonCount kPoints{2, 8};
    static constexpr double kFullPercent = CurvePoint::kPercent.most;
    static constexpr double kFullSpeedCelsius = 90;  // every curve runs at full speed from here on

    static const FanCurve& quiet();
    static const FanCurve& balanced();
    static const FanCurve& performance();

    // Holds `percent`, clamped to 0 to 100 (100 when it is not finite), up to 80 °C and reaches
    // full speed at 90 °C.
    static FanCurve manual(double percent);

    // Throws a ScopeError with the first rule that the curve breaks. A curve that passes never
    // falls as it gets hotter and is at full speed by 90 °C.
    void validate() const;

    // 0 to 100 for a valid curve. Full speed for a temperature that is not finite and for a curve
    // without points.
    double percent(double celsius) const;

    bool operator==(const FanCurve&) const = default;

    static constexpr auto jsonFields() {
        return std::tuple{
            jsonField("points", &FanCurve::points, kPoints,
                      JsonEveryItem{"temperature", {.most = kFullSpeedCelsius}},
                      JsonSomeItem{"percent", {.least = kFullPercent}},
                      JsonNote{"each point is at least 2 degrees warmer than the one before it, "
                               "and no slower; the last one is at full speed"}),
            jsonField("sensor", &FanCurve::sensor)};
    }
};

}  // namespace ferovane
