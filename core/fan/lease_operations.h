// What every lease is handed from outside, so that it never reads a clock or sleeps by itself.
#pragma once

#include <functional>

namespace ferovane {

using LeaseClock = std::function<double()>;    // seconds on a monotonic clock that counts sleep
using LeaseCancelled = std::function<bool()>;  // whether the lease is to end now
using LeasePause = std::function<void()>;      // passes the time until the next round

}  // namespace ferovane
