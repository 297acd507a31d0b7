// The one way a lease touches the fans.
#pragma once

#include <optional>
#include <vector>

#include "core/model/snapshot.h"

namespace ferovane {

// Fans are named by index from 0, speeds are revolutions per minute. Failures are ScopeErrors.
// Used by one thread at a time.
class CoolingHardware {
public:
    virtual ~CoolingHardware() = default;

    // The fans as they are now, in index order; empty when there is none.
    virtual std::vector<FanReading> fans() = 0;

    // The fan's current target speed; absent when it cannot be read.
    virtual std::optional<double> target(int fan) = 0;

    // Writes a target speed and returns once it has been read back; throws otherwise.
    virtual void setTarget(int fan, double rpm) = 0;

    // Takes the fan out of system automatic control (true) or gives it back (false), and returns
    // once that has been read back; throws otherwise.
    virtual void setManual(int fan, bool enabled) = 0;
};

}  // namespace ferovane
