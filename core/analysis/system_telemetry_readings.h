// How a telemetry record follows from what the platform answered. Pure: any thread.
#pragma once

#include <optional>

#include "core/analysis/system_telemetry.h"
#include "core/model/date.h"
#include "shim/fv.h"

namespace ferovane {

// `memory` is absent when the kernel did not tell.
SystemTelemetry telemetryFrom(Date date, const FVBattery& battery,
                              const std::optional<FVMemory>& memory);

}  // namespace ferovane
