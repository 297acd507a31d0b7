#include "helper/system_power_access.h"

#include "core/power/native_power_settings.h"
#include "core/power/sleep_blocker.h"
#include "core/power/turbo.h"
#include "shim/fv.h"

namespace ferovane {

SystemPowerAccess::SystemPowerAccess(ToolKeeper& keeper, std::function<bool()> stop)
    : run_(ProcessRunner::runner({.keeper = &keeper, .stop = stop})),
      undisturbed_(stop ? std::make_unique<SystemPowerAccess>(keeper) : nullptr) {}

PowerConfiguration SystemPowerAccess::configuration() {
    return NativePowerSettings::read(run_);
}

void SystemPowerAccess::set(PowerSetting setting, PowerSource source, std::int64_t value) {
    NativePowerSettings::write(setting, source, value, run_);
}

std::optional<PowerSource> SystemPowerAccess::currentSource() {
    const int acPower = fv_ac_power();
    if (acPower < 0) {
        return std::nullopt;
    }
    return acPower == 1 ? PowerSource::ac : PowerSource::battery;
}

bool SystemPowerAccess::hasSleepBlockers() {
    return !SleepBlocker::read().empty();
}

std::optional<std::int64_t> SystemPowerAccess::turboState() {
    return ferovane::turboState();
}

void SystemPowerAccess::setTurbo(bool disabled) {
    ferovane::setTurbo(disabled, run_);
}

PowerSettingsAccess& SystemPowerAccess::undisturbed() {
    return undisturbed_ ? *undisturbed_ : *this;
}

}  // namespace ferovane
