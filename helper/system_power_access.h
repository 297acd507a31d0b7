// Power settings and turbo of this machine.
#pragma once

#include "core/power/power_settings_access.h"

namespace ferovane {

class SystemPowerAccess : public PowerSettingsAccess {
public:
    PowerConfiguration configuration() override;
    void set(PowerSetting setting, PowerSource source, std::int64_t value) override;
    std::optional<PowerSource> currentSource() override;
    bool hasSleepBlockers() override;
    std::optional<std::int64_t> turboState() override;
    void setTurbo(bool disabled) override;
};

}  // namespace ferovane
