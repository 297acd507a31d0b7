// Fans under a simulated controller, behind the interface that leases use.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "core/fan/apple_silicon_fan_control.h"
#include "core/fan/cooling_hardware.h"
#include "tests/support/fake_fan_keys.h"
#include "tests/support/manual_clock.h"

namespace ferovane::testing {

// How fans are taken on a machine.
enum class FanSwitch {
    intelModeKey,
    openHandOver,     // Apple Silicon whose controller takes the mode at once
    lockedHandOver,   // Apple Silicon that has to be unlocked first, and can be
    refusedHandOver,  // the same where the unlock key cannot be written
};

// Every call into it, and every key it reads and writes, is counted by `mac.faults`. Fan i runs
// from 2000 to 6000 + 200 i rpm, is automatic, and is at its minimum.
class FakeCoolingHardware : public CoolingHardware {
public:
    FakeFanKeys mac;
    int listed;  // how many of the fans the controller still lists
    std::function<void(std::vector<FanReading>&)> editReadings;   // what fans() tells instead
    std::function<void(int, std::optional<double>&)> editTarget;  // what target() tells instead

    FakeCoolingHardware(FanSwitch fanSwitch, int count, ManualClock& clock)
        : listed(count),
          intel_(fanSwitch == FanSwitch::intelModeKey),
          armFans_([this](const std::string& key) { return mac.read(key); },
                   [this](const std::string& key, double value) { mac.write(key, value); },
                   [&clock] { clock.advance(kRetrySeconds); }, [&clock] { return clock.now(); }) {
        for (int fan = 0; fan < count; ++fan) {
            names_.push_back({key(fan, "Mn"), key(fan, "Mx"), key(fan, "Tg"), key(fan, "Md")});
            mac[key(fan, "Md")] = intel_ || fan % 2 == 0 ? 0 : 3;
            mac[key(fan, "Tg")] = mac[key(fan, "Mn")] = 2000;
            mac[key(fan, "Mx")] = 6000 + 200 * fan;
        }
        if (!intel_) {
            mac["Ftst"] = 0;
        }
        mac.locked = fanSwitch >= FanSwitch::lockedHandOver;
        mac.refusalsAfterUnlock = 2;
        mac.keys["Ftst"].unwritable = fanSwitch == FanSwitch::refusedHandOver;
    }

    static std::string key(int fan, const char* suffix) {
        return "F" + std::to_string(fan) + suffix;
    }
    bool isAutomatic(int fan) const {
        const double mode = mac.keys.at(key(fan, "Md")).value;
        return mode == 0 || mode == 3;
    }
    bool allAutomatic() const {
        bool all = mac.keys.at("Ftst").value == 0;
        for (int fan = 0; mac.keys.count(key(fan, "Md")) > 0; ++fan) {
            all = all && isAutomatic(fan);
        }
        return all;
    }

    std::vector<FanReading> fans() override {
        mac.faults.count("fans");
        std::vector<FanReading> readings;
        for (int fan = 0; fan < listed; ++fan) {
            readings.push_back(reading(fan));
        }
        if (editReadings) {
            editReadings(readings);
        }
        return readings;
    }

    std::optional<double> target(int fan) override {
        std::optional<double> rpm = mac.number(names(fan).target);
        if (editTarget) {
            editTarget(fan, rpm);
        }
        return rpm;
    }

    void setTarget(int fan, double rpm) override { mac.write(names(fan).target, rpm); }

    void setManual(int fan, bool enabled) override {
        if (intel_) {
            mac.write(names(fan).mode, enabled ? 1 : 0);
        } else {
            armFans_.setManual(fan, enabled);
        }
    }

private:
    static constexpr double kRetrySeconds = 0.1;

    struct KeyNames {
        std::string minimum, maximum, target, mode;
    };

    const KeyNames& names(int fan) const { return names_.at(static_cast<std::size_t>(fan)); }

    FanReading reading(int fan) {
        FanReading told;
        told.id = fan;
        told.minimum = mac.number(names(fan).minimum);
        told.maximum = mac.number(names(fan).maximum);
        told.controllable = told.maximum && mac.number(names(fan).target);
        const std::optional<double> mode = mac.number(names(fan).mode);
        if (mode && (*mode == 0 || *mode == 1 || *mode == 3)) {
            told.manual = *mode == 1;
        }
        return told;
    }

    bool intel_;
    std::vector<KeyNames> names_;  // built once: a sweep reads them millions of times
    AppleSiliconFanControl armFans_;
};

}  // namespace ferovane::testing
