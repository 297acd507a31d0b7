// Fans, their controller's keys, a clock and an owner: all that a lease or a hand-over touches.
#pragma once

#include <algorithm>
#include <cstdio>
#include <functional>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/fan/apple_silicon_fan_control.h"
#include "core/fan/cooling_lease.h"
#include "core/fan/curve_lease.h"
#include "core/fan/fan_keys.h"
#include "tests/support/dice.h"

namespace ferovane::testing {

struct WorldFan {
    std::optional<double> mode = 0;  // an absent value cannot be read
    std::optional<double> minimum = 2000, maximum = 6000, target = 2000;
    bool controllable = true, listed = true;
    const char* modeName = "Md";
};

// What befalls one call, besides what has changed meanwhile.
enum class Fault {
    none,
    refused,      // fails, and nothing has happened
    unexpected,   // the same, with an error that is not the library's own
    unknown,      // the same, with no exception of the standard library
    unconfirmed,  // a write that arrives and fails
    lost          // a write that does not arrive and does not fail
};

// Every call is counted and written down.
class FanWorld : public CoolingHardware {
public:
    std::vector<WorldFan> fan;
    std::optional<double> unlock = 0;  // "Ftst"
    std::set<std::string> unwritable;  // keys
    bool locked = false;               // no mode key takes 1 while "Ftst" is 0
    int refusalsAfterUnlock = 0;       // how often the thermal daemon still wins after that
    double clock = 1000;
    double roundSeconds = 1, retrySeconds = 0.1;
    bool cancelled = false;
    Snapshot snapshot;

    std::function<Fault(const std::string& call)> befall = [](const std::string&) {
        return Fault::none;
    };
    std::function<void(std::vector<FanReading>&)> editReadings = [](auto&) {};
    std::function<void(int fan, bool enabled)> switchFan;  // Intel's mode key if it is empty
    int calls = 0;
    std::string trace;   // every call: "fans, F0Tg?, F0Md=1, wait 1.5"
    std::string writes;  // what has arrived: "F0Md=1 F0Tg=6000"

    explicit FanWorld(int fans = 2) : fan(static_cast<std::size_t>(fans)) { setCelsius(50); }

    void setCelsius(double celsius) { snapshot.sensors = {{"TC0P", "", celsius}}; }
    bool allAutomatic() const {
        return unlock.value_or(0) == 0 && std::all_of(fan.begin(), fan.end(), [](const auto& it) {
                   return it.mode == 0.0 || it.mode == 3.0;
               });
    }

    // A key's value, past everything that counts or befalls; of no use for a key there is not.
    std::optional<double>& operator[](const std::string& key) {
        std::optional<double>* value = find(key);
        return value == nullptr ? nothing_ = std::nullopt : *value;
    }

    // The controller's keys, as the hand-over is given them.
    double read(const std::string& key) {
        begin(key, "?");
        const std::optional<double>* value = find(key);
        if (value == nullptr || !*value) {
            fail(key);
        }
        return **value;
    }
    void write(const std::string& key, double value) {
        const Fault fault = begin(key, "=" + text(value));
        std::optional<double>* slot = find(key);
        if (slot == nullptr || unwritable.count(key) > 0 || isRefusedByLock(key, value)) {
            fail(key);
        }
        if (fault != Fault::lost) {
            *slot = value;
            writes += (writes.empty() ? "" : " ") + key + "=" + text(value);
        }
        if (fault == Fault::unconfirmed) {
            fail(key);
        }
    }
    AppleSiliconFanControl handOver() {
        return {[this](const std::string& key) { return read(key); },
                [this](const std::string& key, double value) { write(key, value); },
                [this] { retry(); }, [this] { return now(); }};
    }

    std::vector<FanReading> fans() override {
        begin("fans");
        std::vector<FanReading> list;
        for (std::size_t i = 0; i < fan.size(); ++i) {
            const WorldFan& it = fan[i];
            const bool known = it.mode == 0.0 || it.mode == 1.0 || it.mode == 3.0;
            const auto manual = known ? std::optional(it.mode == 1.0) : std::nullopt;
            const int id = static_cast<int>(i);
            if (it.listed) {
                list.push_back({id, {}, it.minimum, it.maximum, manual, it.controllable});
            }
        }
        editReadings(list);
        return list;
    }
    std::optional<double> target(int id) override {
        begin(FanKeys::of(id, "Tg"), "?");
        return fan.at(static_cast<std::size_t>(id)).target;
    }
    void setTarget(int id, double rpm) override { write(FanKeys::of(id, "Tg"), rpm); }
    void setManual(int id, bool enabled) override {
        if (switchFan) {
            switchFan(id, enabled);
        } else {
            write(FanKeys::of(id, "Md"), enabled ? 1 : 0);
        }
    }

    // What else a lease is given.
    double now() { return begin("now"), clock; }
    bool isCancelled() { return begin("cancelled"), cancelled; }
    Snapshot sample() { return begin("sample"), snapshot; }
    void wait(double left) {
        begin("wait ", text(left));
        clock += std::min(roundSeconds, left);
    }
    void retry() { begin("retry"), clock += retrySeconds; }
    void update(const FanControlProgress& progress) {
        std::string told = progress.protectionActive ? " hot" : "";
        for (const FanTarget& target : progress.targets) {
            told += " " + std::to_string(target.id) + ":" + text(target.rpm);
        }
        begin("update ", text(progress.deadline) + told);
    }
    void applied() { begin("applied"); }

    void cool(double duration) {
        CoolingLease::run(
            *this, duration, [this] { return now(); }, [this] { return isCancelled(); },
            [this](double left) { wait(left); });
    }
    void follow(const FanCurve& curve, double duration) {
        CurveLease::run(
            *this, curve, duration, [this] { return sample(); }, [this] { return now(); },
            [this] { return isCancelled(); }, [this](double left) { wait(left); },
            [this](const FanControlProgress& progress) { update(progress); },
            [this] { applied(); });
    }

    static std::string text(double number) {
        char buffer[32];
        return {buffer, static_cast<std::size_t>(snprintf(buffer, sizeof buffer, "%.15g", number))};
    }

private:
    static constexpr int kMostCalls = 20000;

    Fault begin(const std::string& call, const std::string& detail = {}) {
        if (++calls > kMostCalls) {
            throw std::runtime_error("no end");
        }
        trace += (trace.empty() ? "" : ", ") + call + detail;
        const Fault fault = befall(call + detail);
        switch (fault) {
            case Fault::refused:
                fail(call);
            case Fault::unexpected:
                throw std::runtime_error(call);
            case Fault::unknown:
                throw calls;
            default:
                return fault;
        }
    }
    // No two calls fail in the same words.
    [[noreturn]] void fail(const std::string& call) const {
        throw ScopeError(call + " 失败（" + std::to_string(calls) + "）");
    }

    std::optional<double> nothing_;

    std::optional<double>* find(const std::string& key) {
        const auto id = static_cast<std::size_t>(key[1] - '0');
        if (key[0] != 'F' || id >= fan.size()) {
            return key == "Ftst" ? &unlock : nullptr;
        }
        const auto is = [&](const char* name) { return key.compare(2, 2, name) == 0; };
        return is("Tg")               ? &fan[id].target
               : is("Mn")             ? &fan[id].minimum
               : is("Mx")             ? &fan[id].maximum
               : is(fan[id].modeName) ? &fan[id].mode
                                      : nullptr;
    }
    bool isRefusedByLock(const std::string& key, double value) {
        return locked && key.compare(2, 2, "Tg") != 0 && key != "Ftst" && value == 1 &&
               (unlock.value_or(0) == 0 || refusalsAfterUnlock-- > 0);
    }
};

}  // namespace ferovane::testing
