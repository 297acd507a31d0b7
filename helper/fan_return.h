// Handing every fan of the machine back to the system.
#pragma once

#include "core/fan/cooling_hardware.h"

namespace ferovane {

// Returns every fan to system automatic and confirms it; throws when the machine shows no fan, or
// naming each fan that could not be given back.
void returnEveryFan(CoolingHardware& hardware);

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
