// Driving every fan from a curve for a bounded time.
#pragma once

#include <functional>
#include <map>
#include <vector>

#include "core/fan/cooling_hardware.h"
#include "core/fan/fan_curve.h"
#include "core/fan/lease_operations.h"
#include "core/model/fan_target.h"
#include "core/model/snapshot.h"

namespace ferovane {

// What a curve lease tells after every round.
struct FanControlProgress {
    double deadline = 0;             // when the lease ends, on its own clock
    std::vector<FanTarget> targets;  // as last written, by rising fan index
    bool protectionActive =
        false;  // full speed because the machine is hot, whatever the curve says

    bool operator==(const FanControlProgress&) const = default;
};

namespace CurveLease {

using Sample = std::function<Snapshot()>;  // a fresh sample of the machine
using OnUpdate = std::function<void(const FanControlProgress&)>;
using OnApplied = std::function<void()>;

// Drives every fan until `duration` seconds have passed (FanLimits::kLeaseSeconds at most) or
// `isCancelled`, polled before each round. Each round samples, checks that the fans are still as it
// left them, writes what has changed enough, and calls `onUpdate`; after the first round's
// confirmed writes it calls `onApplied`, once. All of them run on the calling thread.
//
// Throws a ScopeError before anything is written when the curve, the duration, a fan or its ratings
// are not fit for it, and afterwards when a temperature is missing, a write fails, or somebody else
// has changed a fan. Returns only when every fan has been handed back, or when it was cancelled or
// out of time before the first round.
void run(CoolingHardware& hardware, const FanCurve& curve, double duration, const Sample& sample,
         const LeaseClock& now, const LeaseCancelled& isCancelled, const LeasePause& wait,
         const OnUpdate& onUpdate, const OnApplied& onApplied);

// What the curve follows in this sample, in degrees Celsius, always finite. Throws the lease's
// ScopeError when that is missing, or when the CPU's temperature is: without it nothing would see
// the machine grow hot.
double controlTemperature(const FanCurve& curve, const Snapshot& snapshot);

// Targets in rpm by fan index, in the form in which they are reported.
std::vector<FanTarget> fanTargets(const std::map<int, double>& targets);

}  // namespace CurveLease
}  // namespace ferovane
