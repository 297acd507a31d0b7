// What a raw controller key may be called in front of a user.
//
// Key names mean different things on different machines. The catalogue names only what is known:
// an unknown key has no meaning rather than a guessed one, a probe near the memory says nothing
// about its use, and several processor probes are not several cores.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/analysis/sensor_component.h"
#include "core/analysis/sensor_naming_platform.h"
#include "core/model/hardware_sensor.h"

namespace ferovane {

// The texts are part of the program and never go away.
struct SensorMeaning {
    SensorComponent component = SensorComponent::unknown;
    std::string_view title;        // a few characters
    std::string_view explanation;  // one sentence

    bool operator==(const SensorMeaning&) const = default;
};

// One row of the short list that a user sees first.
struct CommonSensorReading {
    std::string id;  // unique in one list and the same in every list
    std::string title, explanation;
    HardwareSensorKind kind = HardwareSensorKind::temperature;
    std::optional<double> value;       // in the unit of the kind
    std::vector<std::string> sources;  // the keys folded into this row

    bool operator==(const CommonSensorReading&) const = default;
};

namespace SensorCatalog {

// Absent when the key is not catalogued for its kind on that platform.
std::optional<SensorMeaning> meaning(const HardwareSensorReading& reading,
                                     SensorNamingPlatform platform);

// The hottest probe of processor, graphics, memory and storage, then every fan, then the power of
// the whole machine; what no reading tells has no row. A value that is not finite counts as absent.
std::vector<CommonSensorReading> common(std::span<const HardwareSensorReading> readings,
                                        SensorNamingPlatform platform);

}  // namespace SensorCatalog
}  // namespace ferovane
