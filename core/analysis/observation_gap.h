// How far apart two samples may lie and still belong to one observation.
#pragma once

#include <optional>

#include "core/model/date.h"

namespace ferovane {

// A monitor samples every second or few. After a longer pause (sleep, a suspended process) nothing
// is known of the time between, and an average over it would be invented.
inline constexpr double kLongestGapSeconds = 15;

// Whether a sample at `date` goes on from one at `last`: later, and not too much so. A clock that
// was set back ends an observation like a pause does.
inline bool continuesObservation(std::optional<Date> last, Date date) {
    if (!last) {
        return false;
    }
    const double seconds = date - *last;
    return seconds > 0 && seconds <= kLongestGapSeconds;
}

}  // namespace ferovane
