// A machine's power settings in memory, with faults and a journal of what was asked and written.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/model/scope_error.h"
#include "core/power/power_settings_access.h"
#include "core/power/process_runner.h"

namespace ferovane::testing {

enum class PowerFault {
    none,         // the call succeeds
    refused,      // the call throws and changes nothing
    unconfirmed,  // a write takes effect, and then throws
};

class FakePowerAccess : public PowerSettingsAccess {
public:
    PowerConfiguration settings;
    std::optional<PowerSource> source = PowerSource::battery;
    bool blockers = false;
    std::optional<std::int64_t> turbo = 0;

    // "battery:sleep=5", "turbo=1"; "!" at the end of a failed one
    std::vector<std::string> writes;
    std::string trace;  // every call: "settings source battery:sleep=5! turbo? "
    int calls = 0;      // of any kind

    // The k-th call from now (the next is 1) fails with the text "第k步失败"; `also` happens right
    // after it has read or changed something, as another program's work would.
    void failCall(int k, PowerFault fault, std::function<void()> also = {}) {
        faults_[calls + k] = {fault, "第" + std::to_string(k) + "步失败", std::move(also)};
    }

    // From the k-th call on the work is given up, which nobody who is undisturbed notices; a write
    // that it cuts in has taken effect or not.
    void stopAtCall(int k, bool tookEffect) {
        stopsAt_ = calls + k;
        stoppedTakesEffect_ = tookEffect;
    }

    PowerConfiguration configuration() override {
        PowerConfiguration reading;
        call("settings", [&] { reading = settings; });
        return reading;
    }
    void set(PowerSetting setting, PowerSource on, std::int64_t value) override {
        const auto what = PowerEdit{on, setting, 0, 0}.id() + "=" + std::to_string(value);
        write(what, [&] { settings.profiles[on][setting] = value; });
    }
    // This and the state of turbo have no way to fail but being absent.
    std::optional<PowerSource> currentSource() override {
        ++calls;
        trace += "source ";
        return source;
    }
    bool hasSleepBlockers() override {
        call("blockers", [] {});
        return blockers;
    }
    std::optional<std::int64_t> turboState() override {
        ++calls;
        trace += "turbo? ";
        return turbo;
    }
    void setTurbo(bool disabled) override {
        const std::int64_t state = disabled ? 1 : 0;
        write("turbo=" + std::to_string(state), [&] { turbo = state; });
    }
    PowerSettingsAccess& undisturbed() override {
        stopsAt_.reset();
        return *this;
    }

private:
    struct Fault {
        PowerFault kind = PowerFault::none;
        std::string message;
        std::function<void()> also = {};
    };

    // Does what is asked, unless something else befalls this call.
    void call(const std::string& what, const std::function<void()>& act) {
        const Fault& fault = faults_[++calls];
        const bool stopped = stopsAt_ && calls >= *stopsAt_;
        const bool fails = stopped || fault.kind != PowerFault::none;
        trace += what + (fails ? "! " : " ");
        if (stopped ? std::exchange(stoppedTakesEffect_, false)
                    : fault.kind != PowerFault::refused) {
            act();
        }
        if (stopped) {
            throw WorkStopped();
        }
        if (fault.also) {
            fault.also();
        }
        if (fails) {
            throw ScopeError(fault.message);
        }
    }
    void write(const std::string& what, const std::function<void()>& change) {
        writes.push_back(what + "!");
        call(what, change);
        writes.back() = what;
    }

    std::map<int, Fault> faults_;
    std::optional<int> stopsAt_;
    bool stoppedTakesEffect_ = false;
};

// A laptop as it comes: both sources readable in all three settings.
inline PowerConfiguration laptopSettings() {
    return {{{PowerSource::ac,
              {{PowerSetting::lowPowerMode, 0},
               {PowerSetting::displaySleep, 10},
               {PowerSetting::systemSleep, 0}}},
             {PowerSource::battery,
              {{PowerSetting::lowPowerMode, 0},
               {PowerSetting::displaySleep, 10},
               {PowerSetting::systemSleep, 30}}}}};
}

}  // namespace ferovane::testing
