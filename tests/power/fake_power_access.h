// A machine's power settings in memory, with faults and a journal of what was written.
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
    refused,      // the call throws and changes nothing
    unconfirmed,  // a write takes effect, and then throws
};

class FakePowerAccess : public PowerSettingsAccess {
public:
    PowerConfiguration settings;
    std::optional<PowerSource> source = PowerSource::battery;
    bool blockers = false;
    std::optional<std::int64_t> turbo = 0;

    std::vector<std::string>
        writes;     // "battery:sleep=5", "turbo=1"; "!" at the end of a failed one
    int calls = 0;  // of any kind

    // The k-th call from now (the next is 1) fails with the text "第k步失败"; `also` happens right
    // after a change that takes effect, as another program's work would.
    void failCall(int k, PowerFault fault, std::function<void()> also = {}) {
        faults_[calls + k] = {fault, "第" + std::to_string(k) + "步失败", std::move(also)};
    }
    void clearFaults() {
        faults_.clear();
        stopsAt_.reset();
    }

    // From the k-th call on the work is given up, which nobody who is undisturbed notices; a write
    // that it cuts in has taken effect or not.
    void stopAtCall(int k, bool tookEffect) {
        stopsAt_ = calls + k;
        stoppedTakesEffect_ = tookEffect;
    }

    PowerConfiguration configuration() override {
        read();
        return settings;
    }
    void set(PowerSetting setting, PowerSource on, std::int64_t value) override {
        const auto what = PowerEdit{on, setting, 0, 0}.id() + "=" + std::to_string(value);
        write(what, [&] { settings.profiles[on][setting] = value; });
    }
    std::optional<PowerSource> currentSource() override {
        ++calls;  // has no way to fail but being absent
        return source;
    }
    bool hasSleepBlockers() override {
        read();
        return blockers;
    }
    std::optional<std::int64_t> turboState() override {
        ++calls;
        return turbo;
    }
    PowerSettingsAccess& undisturbed() override {
        stopsAt_.reset();
        return *this;
    }
    void setTurbo(bool disabled) override {
        const std::int64_t state = disabled ? 1 : 0;
        write("turbo=" + std::to_string(state), [&] { turbo = state; });
    }

private:
    struct Fault {
        PowerFault kind;
        std::string message;
        std::function<void()> also;
    };

    const Fault* strike() {
        const auto found = faults_.find(++calls);
        return found == faults_.end() ? nullptr : &found->second;
    }

    [[noreturn]] static void fail(const Fault& fault) {
        if (fault.also) {
            fault.also();
        }
        throw ScopeError(fault.message);
    }

    void read() {
        if (stopsAt_ && calls + 1 >= *stopsAt_) {
            throw WorkStopped();
        }
        if (const auto* fault = strike()) {
            fail(*fault);
        }
    }

    template <class Change>
    void write(const std::string& what, Change change) {
        if (stopsAt_ && calls + 1 >= *stopsAt_) {
            ++calls;
            if (std::exchange(stoppedTakesEffect_, false)) {
                change();
            }
            writes.push_back(what + "!");
            throw WorkStopped();
        }
        const auto* fault = strike();
        if (fault == nullptr || fault->kind == PowerFault::unconfirmed) {
            change();
        }
        writes.push_back(fault == nullptr ? what : what + "!");
        if (fault != nullptr) {
            fail(*fault);
        }
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
