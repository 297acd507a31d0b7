#include "core/fan/fan_checks.h"

#include <algorithm>
#include <cmath>
#include <optional>

namespace ferovane::FanChecks {

bool allFree(const std::vector<FanReading>& fans) {
    return !fans.empty() && std::all_of(fans.begin(), fans.end(), [](const FanReading& fan) {
        return fan.controllable && fan.manual.has_value() && !*fan.manual;
    });
}

bool isHeldAt(int id, double targetRpm, double toleranceRpm, const std::vector<FanReading>& fans,
              CoolingHardware& hardware) {
    const auto fan = std::find_if(fans.begin(), fans.end(),
                                  [&](const FanReading& reading) { return reading.id == id; });
    if (fan == fans.end() || !fan->manual.value_or(false)) {
        return false;
    }
    const std::optional<double> target = hardware.target(id);
    return target && std::abs(*target - targetRpm) < toleranceRpm;
}

}  // namespace ferovane::FanChecks
