// Every time a control session waits for, in seconds. Data, so that tests take milliseconds.
#pragma once

#include "helper/fan_return.h"

#include "core/fan/fan_keys.h"

namespace ferovane {

struct SessionTimings {
    double request = 86400.0;    // longest wait for the next request
    double watchdogPoll = 0.2;   // between looks at the owner and the stop flag
    double hangUp = 1.0;         // from the input's hang-up until what is being done is given up
    double leasePoll = 0.1;      // between looks at a lease's stop request while it waits
    double leaseRound = 2.0;     // from one round of a lease to the next
    double leaseEnd = 12.0;      // for a lease, or a request, to undo what it did once asked to end
    double confirmation = 12.0;  // for a new lease's first targets to take effect
    double returnPause = kFirstReturnPauseSeconds;  // after a hand-back that failed; doubles
    double profile = FanLimits::kLeaseSeconds;      // a profile's lease
    double fanTest = 5.0;                           // a fan test's lease
};

}  // namespace ferovane
