#include "helper/system_power_access.h"

#include "core/power/native_power_settings.h"
#include "core/power/sleep_blocker.h"
#include "core/power/turbo.h"
#include "shim/fv.h"

namespace ferovane {

PowerConfiguration SystemPowerAccess::configuration() {
    return NativePowerSettings::read();
}

void SystemPowerAccess::set(PowerSetting setting, PowerSource source, std::int64_t value) {
    NativePowerSettings::write(setting, source, value);
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
    ferovane::setTurbo(disabled);
}

}  // namespace ferovane
