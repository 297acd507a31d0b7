// Power settings and turbo of this machine.
#pragma once

#include <functional>
#include <memory>

#include "core/power/power_settings_access.h"
#include "core/power/process_runner.h"

namespace ferovane {

class SystemPowerAccess : public PowerSettingsAccess {
public:
    // keeper: told of every tool; must outlive this. stop: looked at while a tool runs, true once
    // the work is to be given up; empty: never.
    explicit SystemPowerAccess(ToolKeeper& keeper, std::function<bool()> stop = {});

    PowerConfiguration configuration() override;
    void set(PowerSetting setting, PowerSource source, std::int64_t value) override;
    std::optional<PowerSource> currentSource() override;
    bool hasSleepBlockers() override;
    std::optional<std::int64_t> turboState() override;
    void setTurbo(bool disabled) override;
    PowerSettingsAccess& undisturbed() override;

private:
    ToolRunner run_;
    std::unique_ptr<SystemPowerAccess> undisturbed_;  // null when this is it
};

}  // namespace ferovane
