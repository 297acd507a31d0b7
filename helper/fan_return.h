// Handing every fan of the machine back to the system.
#pragma once

#include <exception>

#include "core/fan/cooling_hardware.h"
#include "helper/system_log.h"

namespace ferovane {

// Returns every fan to system automatic and confirms it; throws when the machine shows no fan, or
// naming each fan that could not be given back.
void returnEveryFan(CoolingHardware& hardware);

// Tells the log how that has gone for somebody who asked for it. failure: null where nothing
// failed.
void tellReturned(const Log& log, const std::exception_ptr& failure) noexcept;

// One transient controller error needs one more attempt, at once; a controller that is busy needs
// time. The pauses double, to some 25 seconds together.
inline constexpr int kReturnAttempts = 8;
inline constexpr double kFirstReturnPauseSeconds = 0.2;

// Repeats a hand-back, or what a hand-back needs, until it has succeeded, and returns whether it
// has. attempt() tells whether it has; pause(seconds) returns true when nobody is to go on.
template <class Attempt, class Pause>
bool returnPatiently(double firstPause, Attempt&& attempt, Pause&& pause) {
    double seconds = firstPause;
    for (int left = kReturnAttempts; !attempt(); seconds *= 2) {
        if (--left == 0 || pause(seconds)) {
            return false;
        }
    }
    return true;
}

}  // namespace ferovane
