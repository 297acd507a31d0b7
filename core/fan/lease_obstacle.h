// One thing in the way of a lease, and what tells of it.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "core/model/snapshot.h"

namespace ferovane {

class FanReadings;

enum class LeaseKind { cooling, curve };

enum class LeaseObstacleKind {
    invalidCurve,      // the curve breaks one of its own rules
    noFans,            // none is listed, or the list cannot be had
    targetUnreadable,  // the fan's target speed is no number
    ratingUnreadable,  // nor is a rated speed
    ratingOutOfRange,  // a rated speed that no fan has, or a minimum that could stop it
    notControllable,   // the controller takes no target, for a reason that no key tells
    heldByAnother,     // manual, or in a mode that some other program has set
    // Automatic by itself, but the controller forces some other fan; or said to be automatic by a
    // key that no lease relies on.
    modeUncertain,
    noModeKey,             // nothing tells the mode, and nothing could change it
    parkedBelowMinimum,    // the target that the fan would follow at first is below its range
    targetAboveMaximum,    // or above it
    noControlTemperature,  // a temperature that the curve lease needs is missing
    handOverOccupied,      // another program has unlocked the fans of this Apple Silicon machine
    handOverLocked         // they have a lock, and only trying shows whether it stops a lease
};
std::string_view title(LeaseObstacleKind kind);

struct LeaseObstacle {
    LeaseObstacleKind kind = LeaseObstacleKind::noFans;
    std::optional<int> fan;       // index from 0; absent when it is no single fan's
    std::string key;              // the controller's key that tells; empty when none does
    std::optional<double> value;  // what it reads, if it can be read
    std::optional<double> limit;  // what the value is too low or too high for
    std::string message;          // what the lease says to it

    bool operator==(const LeaseObstacle&) const = default;
};

// What, of all that a lease asks of a fan, makes it refuse this one; the first in the lease's
// order. Without a message. To be asked only about a fan that the lease refuses.
LeaseObstacle explainRefusal(LeaseKind lease, const FanReading& fan, FanReadings& readings);

}  // namespace ferovane
