// What both kinds of lease ask of a fan before they take it and while they hold it.
#pragma once

#include <vector>

#include "core/fan/cooling_hardware.h"
#include "core/model/snapshot.h"

namespace ferovane::FanChecks {

// What a user is told of a fan that is not free when it is to be taken.
inline constexpr const char* kNotAutomatic = "风扇未处于系统自动，请先退出其他风扇控制程序";

// Whether there are fans and a lease may take all of them: each accepts targets and is known to be
// in system automatic mode.
bool allFree(const std::vector<FanReading>& fans);

// Whether the fan with this id is still listed, manual, and less than `toleranceRpm` away from the
// target that was written. Anything that cannot be read means no.
bool isHeldAt(int id, double targetRpm, double toleranceRpm, const std::vector<FanReading>& fans,
              CoolingHardware& hardware);

}  // namespace ferovane::FanChecks
