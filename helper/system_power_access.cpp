#include "helper/system_power_access.h"

#include <string>
#include <utility>

#include "core/model/raw_enum.h"
#include "core/power/native_power_settings.h"
#include "core/power/sleep_blocker.h"
#include "core/power/turbo.h"
#include "shim/fv.h"

namespace ferovane {
namespace {

// Makes a change and tells the log how it went; record is given the end of the line.
template <class Change, class Record>
void logged(Change&& change, Record&& record) {
    try {
        change();
    } catch (...) {
        record("：未确认", true);
        throw;
    }
    record("：已确认", false);
}

}  // namespace

SystemPowerAccess::SystemPowerAccess(ToolKeeper& keeper, std::function<bool()> stop, Log log)
    : run_(ProcessRunner::runner({.keeper = &keeper, .stop = stop})),
      log_(std::move(log)),
      undisturbed_(stop ? std::make_unique<SystemPowerAccess>(keeper, nullptr, log_) : nullptr) {}

PowerConfiguration SystemPowerAccess::configuration() {
    return NativePowerSettings::read(run_);
}

void SystemPowerAccess::set(PowerSetting setting, PowerSource source, std::int64_t value) {
    logged([&] { NativePowerSettings::write(setting, source, value, run_); },
           [&](const char* outcome, bool failure) {
               log_(LogLine({"电源设置 ", rawValue(setting), "（", rawValue(source), "）", change(),
                             " ", std::to_string(value), outcome},
                            failure));
           });
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
    logged([&] { ferovane::setTurbo(disabled, run_); },
           [&](const char* outcome, bool failure) {
               log_(LogLine({"睿频", change(), disabled ? "禁用" : "启用", outcome}, failure));
           });
}

// Only whoever puts something back is not disturbed.
const char* SystemPowerAccess::change() const {
    return undisturbed_ ? "改为" : "改回";
}

PowerSettingsAccess& SystemPowerAccess::undisturbed() {
    return undisturbed_ ? *undisturbed_ : *this;
}

}  // namespace ferovane
