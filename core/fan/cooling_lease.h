// Full cooling for a bounded time.
#pragma once

#include "core/fan/cooling_hardware.h"
#include "core/fan/hand_back.h"
#include "core/fan/lease_operations.h"
#include "core/fan/lease_plan.h"

namespace ferovane::CoolingLease {

// Runs every fan at its rated maximum until `duration` seconds have passed
// (FanLimits::kCoolingSeconds at most) or `isCancelled`, polled before each fan and each round.
// Throws a ScopeError before anything is written when the duration, a fan or its ratings are not
// fit for it, and afterwards when a write fails, a fan is no longer as the lease left it, or the
// lease ends while fans are still being taken. Returns only when every fan has been handed back, or
// when it was cancelled before the first look at the fans.
void run(CoolingHardware& hardware, double duration, const LeaseClock& now,
         const LeaseCancelled& isCancelled, const LeasePause& wait);

}  // namespace ferovane::CoolingLease
