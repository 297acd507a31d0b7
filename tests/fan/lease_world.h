// A machine, a clock and an owner, in which either lease can be run.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "core/fan/cooling_lease.h"
#include "core/fan/curve_lease.h"
#include "tests/support/fake_cooling_hardware.h"
#include "tests/support/manual_clock.h"

namespace ferovane::testing {

// Twice the degrees above 30, in percent: what is asked for can be set to the point.
inline FanCurve steepCurve() {
    return {{{30, 0}, {80, 100}}, CurveSensor::cpu};
}
inline double celsiusFor(double percent) {
    return 30 + percent / 2;
}

struct LeaseWorld {
    ManualClock clock;
    FakeCoolingHardware fans;
    FakeFanKeys& mac = fans.mac;
    Snapshot snapshot;
    bool stopped = false;
    std::string events;  // what the lease told its owner, and its pauses
    std::vector<FanControlProgress> updates;

    explicit LeaseWorld(int count = 2, FanSwitch fanSwitch = FanSwitch::intelModeKey)
        : fans(fanSwitch, count, clock) {
        setCelsius(50);
    }

    void setCelsius(double celsius) { snapshot.sensors = {{"TC0P", "CPU", celsius}}; }

    // Runs `act` in the n-th call of this name, counted from 1.
    void inCall(const std::string& name, int n, std::function<void()> act) {
        mac.faults.strikeAt = 1;
        mac.faults.strike = [this, name, n, act](const std::string& call) mutable {
            if (call == name && --n == 0) {
                act();
            }
            ++mac.faults.strikeAt;  // so that the next call is looked at too
        };
    }

    // A round lasts one second. Every call is counted among the machine's.
    void cool(double duration) {
        CoolingLease::run(
            fans, duration, [this] { return now(); }, [this] { return isCancelled(); },
            [this](double) { wait(); });
    }

    void follow(const FanCurve& curve, double duration) {
        CurveLease::run(
            fans, curve, duration, [this] { return sample(); }, [this] { return now(); },
            [this] { return isCancelled(); }, [this](double) { wait(); },
            [this](const FanControlProgress& progress) { update(progress); },
            [this] { tell("applied"); });
    }

private:
    double now() {
        mac.faults.count("now");
        return clock.now();
    }
    bool isCancelled() {
        mac.faults.count("isCancelled");
        return stopped;
    }
    Snapshot sample() {
        mac.faults.count("sample");
        return snapshot;
    }
    void wait() {
        tell("wait");
        clock.advance(1);
    }
    void update(const FanControlProgress& progress) {
        tell("update");
        updates.push_back(progress);
    }
    void tell(const char* event) {
        mac.faults.count(event);
        events += (events.empty() ? "" : " ") + std::string(event);
    }
};

}  // namespace ferovane::testing
