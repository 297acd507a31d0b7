// The one way power logic reaches the machine.
#pragma once

#include <cstdint>
#include <optional>

#include "core/power/power_configuration.h"
#include "core/power/power_settings.h"

namespace ferovane {

// Failures are ScopeErrors. Used by one thread at a time; every call may wait for a tool, and
// throws WorkStopped, with the tool ended at whatever it had done, once the work is to be given up.
class PowerSettingsAccess {
public:
    virtual ~PowerSettingsAccess() = default;

    // All settings as they are now.
    virtual PowerConfiguration configuration() = 0;

    // Writes one setting and returns once it has been read back; throws otherwise.
    virtual void set(PowerSetting setting, PowerSource source, std::int64_t value) = 0;

    // What the machine runs on now; absent when it cannot be told.
    virtual std::optional<PowerSource> currentSource() = 0;

    // Whether some task keeps the machine or its display awake now.
    virtual bool hasSleepBlockers() = 0;

    // 1 turbo-disabling driver loaded, 0 not loaded; absent when it cannot be told.
    virtual std::optional<std::int64_t> turboState() = 0;

    // Disables or enables turbo and returns once that has been confirmed; throws otherwise.
    virtual void setTurbo(bool disabled) = 0;

    // The same machine for whoever puts back what was changed: nothing is given up there. Lives as
    // long as this.
    virtual PowerSettingsAccess& undisturbed() = 0;
};

}  // namespace ferovane
