// Power settings and turbo of this machine.
#pragma once

#include <functional>
#include <memory>

#include "core/power/power_settings_access.h"
#include "core/power/process_runner.h"
#include "helper/system_log.h"

namespace ferovane {

class SystemPowerAccess : public PowerSettingsAccess {
public:
    // keeper: told of every tool; must outlive this. stop: looked at while a tool runs, true once
    // the work is to be given up; empty: never. log: takes a line about each change, whether it was
    // confirmed or not.
    explicit SystemPowerAccess(ToolKeeper& keeper, std::function<bool()> stop = {},
                               Log log = kSilence);

    PowerConfiguration configuration() override;
    void set(PowerSetting setting, PowerSource source, std::int64_t value) override;
    std::optional<PowerSource> currentSource() override;
    bool hasSleepBlockers() override;
    std::optional<std::int64_t> turboState() override;
    void setTurbo(bool disabled) override;
    PowerSettingsAccess& undisturbed() override;

private:
    const char* change() const;

    ToolRunner run_;
    const Log log_;
    std::unique_ptr<SystemPowerAccess> undisturbed_;  // null when this is it
};

}  // namespace ferovane
