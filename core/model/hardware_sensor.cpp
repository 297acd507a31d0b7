#include "core/model/hardware_sensor.h"

namespace ferovane {

std::string_view unit(HardwareSensorKind kind) {
    switch (kind) {
        case HardwareSensorKind::fan:
            return "RPM";
        case HardwareSensorKind::temperature:
            return "°C";
        case HardwareSensorKind::power:
            return "W";
        case HardwareSensorKind::voltage:
            return "V";
        case HardwareSensorKind::current:
            return "A";
    }
    return {};
}

}  // namespace ferovane
