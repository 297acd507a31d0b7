// The world of a SimulatedMac: properties, assertions, power settings.
#include <stdexcept>
#include <string>

#include "simulator/machine/machine.h"
#include "simulator/machine/power_settings.h"
#include "simulator/machine/simulated_mac.h"

namespace simulator {
std::optional<double> SimulatedMac::value(Property property) {
    return owned_->locked([property](World& world) { return world.number(property); });
}

void SimulatedMac::setModelName(std::string_view text) {
    owned_->locked([text](World& world) { copyText(text, world.state().model); });
}

void SimulatedMac::setCpuBrand(std::string_view text) {
    owned_->locked([text](World& world) { copyText(text, world.state().brand); });
}

void SimulatedMac::setSystemVersion(std::string_view text) {
    owned_->locked([text](World& world) { copyText(text, world.state().systemVersion); });
}

void SimulatedMac::setAppleSilicon(bool appleSilicon) {
    owned_->locked([=](World& world) { world.state().appleSilicon = appleSilicon ? 1 : 0; });
}

void SimulatedMac::setRoot(std::string_view directory) {
    owned_->setRoot(std::string(directory));
}

void SimulatedMac::hold(const Assertion& assertion) {
    owned_->locked([&assertion](World& world) {
        for (AssertionRecord& slot : world.state().assertions) {
            if (slot.used != 0) {
                continue;
            }
            copyText(assertion.process, slot.process);
            copyText(assertion.type, slot.type);
            copyText(assertion.reason, slot.reason);
            slot.pid = assertion.pid;
            slot.level = assertion.level;
            slot.since = assertion.since;
            slot.used = 1;
            return;
        }
        throw std::runtime_error("no room for more power assertions");
    });
}

void SimulatedMac::releaseAssertions(int pid) {
    owned_->locked([pid](World& world) {
        for (AssertionRecord& slot : world.state().assertions) {
            slot.used = slot.pid == pid ? 0 : slot.used;
        }
    });
}

void SimulatedMac::setPowerSetting(std::string_view source, std::string_view name,
                                   std::string_view value) {
    owned_->locked([&](World& world) { PowerSettings::set(world, source, name, value); });
}

void SimulatedMac::removePowerSetting(std::string_view source, std::string_view name) {
    owned_->locked([&](World& world) { PowerSettings::remove(world, source, name); });
}

std::optional<std::string> SimulatedMac::powerSetting(std::string_view source,
                                                      std::string_view name) {
    return owned_->locked([&](World& world) -> std::optional<std::string> {
        const PowerSettingRecord* setting = PowerSettings::find(world, source, name);
        return setting != nullptr ? std::optional<std::string>(setting->value) : std::nullopt;
    });
}

std::vector<PowerSettingValue> SimulatedMac::powerSettings() {
    return owned_->locked([](World& world) {
        std::vector<PowerSettingValue> values;
        for (const PowerSettingRecord* setting : PowerSettings::all(world)) {
            values.push_back({setting->source, setting->name, setting->value});
        }
        return values;
    });
}

}  // namespace simulator
