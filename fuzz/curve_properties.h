// What a fan curve that passed its validation can be relied on for.
#pragma once

#include <cmath>
#include <limits>
#include <vector>

#include "core/fan/fan_curve.h"
#include "fuzz/property.h"

namespace ferovane::fuzzing {

// Where a curve could go wrong: coarsely everywhere, and right beside each of its points.
inline std::vector<double> telltaleTemperatures(const FanCurve& curve) {
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    std::vector<double> celsius{-273.15};
    for (int degrees = 0; degrees < 30; ++degrees) {
        celsius.push_back(degrees);
    }
    double last = celsius.back();
    for (const CurvePoint& point : curve.points) {
        for (double between = last + 1; between < point.temperature - 1; ++between) {
            celsius.push_back(between);
        }
        celsius.push_back(std::nextafter(point.temperature, -kInfinity));
        celsius.push_back(point.temperature);
        celsius.push_back(std::nextafter(point.temperature, kInfinity));
        last = point.temperature;
    }
    celsius.push_back(1000);
    return celsius;
}

inline void checkAdmittedCurve(const FanCurve& curve) {
    double before = 0;
    for (const double celsius : telltaleTemperatures(curve)) {
        const double percent = curve.percent(celsius);
        require(percent >= 0 && percent <= 100, "an admitted curve asks for 0 to 100 percent");
        require(percent >= before, "an admitted curve never falls as it gets hotter");
        require(celsius < 90 || percent == 100, "an admitted curve is at full speed by 90 degrees");
        before = percent;
    }
    require(curve.percent(std::nan("")) == 100, "without a temperature the fan runs at full speed");
}

}  // namespace ferovane::fuzzing
