// Kinds of controller sensors and one raw reading of any kind.
#pragma once

#include <array>
#include <string>
#include <string_view>
#include <tuple>

#include "core/model/json_fields.h"
#include "core/model/raw_enum.h"

namespace ferovane {

enum class HardwareSensorKind { fan, temperature, power, voltage, current };

template <>
struct RawEnum<HardwareSensorKind> {
    static constexpr std::array<RawCase<HardwareSensorKind>, 5> cases{{
        {HardwareSensorKind::fan, "fan"},
        {HardwareSensorKind::temperature, "temperature"},
        {HardwareSensorKind::power, "power"},
        {HardwareSensorKind::voltage, "voltage"},
        {HardwareSensorKind::current, "current"},
    }};
};

// "RPM", "°C", "W", "V" or "A".
std::string_view unit(HardwareSensorKind kind);

struct HardwareSensorReading {
    std::string key;    // four characters
    std::string label;  // what a user reads
    HardwareSensorKind kind = HardwareSensorKind::temperature;
    double value = 0;  // in the unit of the kind

    bool operator==(const HardwareSensorReading&) const = default;

    static constexpr auto jsonFields() {
        using R = HardwareSensorReading;
        return std::tuple{
            jsonField("key", &R::key), jsonField("label", &R::label), jsonField("kind", &R::kind),
            jsonField("value", &R::value,
                      JsonNote{"in rpm, degrees Celsius, watts, volts or amperes, by the kind"})};
    }
};

}  // namespace ferovane
