// Full cooling for a bounded time, and the one way in which every fan is handed back.
#pragma once

#include <functional>
#include <vector>

#include "core/fan/cooling_hardware.h"
#include "core/fan/lease_operations.h"
#include "core/model/snapshot.h"

namespace ferovane::CoolingLease {

// Runs every fan at its rated maximum until `duration` seconds have passed or `isCancelled`, polled
// before each fan and each round. Throws a ScopeError before anything is written when the duration,
// a fan or its ratings are not fit for it, and afterwards when a write fails, a fan is no longer as
// the lease left it, or the lease ends while fans are still being taken. Returns only when every
// fan has been handed back, or when it was cancelled before the first look at the fans.
void run(CoolingHardware& hardware, double duration, const LeaseClock& now,
         const LeaseCancelled& isCancelled, const LeasePause& wait);

// Hands every listed fan back to the system, also after one of them has failed, and needs no memory
// to do so. Throws one ScopeError with every failure. May be called again.
void restoreAuto(const std::vector<int>& ids, CoolingHardware& hardware);

// Runs `act`, which may take and drive the fans `ids`, and hands them all back however it ends. An
// error of `act` passes on, whatever becomes of handing back; without one, a failure to hand back
// is the result.
void handBackAfter(const std::vector<int>& ids, CoolingHardware& hardware,
                   const std::function<void()>& act);

// Throws unless the target speed that a fan already has can be read and lies within its rated
// range: it is what the fan follows from the moment it becomes manual.
void validateInheritedTarget(const FanReading& fan, CoolingHardware& hardware);

}  // namespace ferovane::CoolingLease
