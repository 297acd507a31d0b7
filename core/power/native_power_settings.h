// Power settings through the system's power-management tool.
#pragma once

#include <cstdint>

#include "core/power/power_configuration.h"
#include "core/power/power_settings.h"
#include "core/power/process_runner.h"

namespace ferovane::NativePowerSettings {

// A full disk, which keeps what the tool says from being had, is told as such.
PowerConfiguration read(const ToolRunner& run = ProcessRunner::runner());

// Returns once the value has been read back; throws otherwise, and leaves whatever the tool did.
// A value out of the setting's range throws before anything is run.
void write(PowerSetting setting, PowerSource source, std::int64_t value,
           const ToolRunner& run = ProcessRunner::runner());

}  // namespace ferovane::NativePowerSettings
