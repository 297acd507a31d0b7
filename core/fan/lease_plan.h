// Which fans a lease takes, what is in the way of one, and whether a lease still holds them.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "core/fan/cooling_hardware.h"
#include "core/model/result_code.h"
#include "core/model/snapshot.h"

namespace ferovane {

enum class LeaseKind { cooling, curve };

enum class LeaseObstacleKind {
    invalidCurve,          // the curve breaks one of its own rules
    noFans,                // none is listed, or the list cannot be had
    targetUnreadable,      // the fan's target speed is no number
    ratingUnreadable,      // nor is a rated speed
    ratingOutOfRange,      // a rated speed that no fan has, or a minimum that could stop it
    notControllable,       // the controller takes no target, for a reason that no key tells
    heldByAnother,         // manual, or in a mode that some other program has set
    modeUncertain,         // nothing tells for certain that it is automatic
    noModeKey,             // nothing tells the mode, and nothing could change it
    parkedBelowMinimum,    // the target that the fan would follow at first is below its range
    targetAboveMaximum,    // or above it
    noControlTemperature,  // a temperature that the curve lease needs is missing
    handOverOccupied,      // another program has unlocked the fans of this Apple Silicon machine
    handOverLocked         // they have a lock, and only trying shows whether it stops a lease
};

// One thing in the way of a lease, and what tells of it.
struct LeaseObstacle {
    LeaseObstacleKind kind = LeaseObstacleKind::noFans;
    std::optional<int> fan = {};       // index from 0; absent when it is no single fan's
    std::string key = {};              // the controller's key that tells; empty when none does
    std::optional<double> value = {};  // what it reads, if it can be read
    std::optional<double> limit = {};  // what the value is too low or too high for
    std::string message = {};          // what the lease says to it

    bool operator==(const LeaseObstacle&) const = default;
};

// What a lease asks of every fan before the next question, in this order.
enum class FanCheck { free, rated, target };
inline constexpr FanCheck kFanChecks[] = {FanCheck::free, FanCheck::rated, FanCheck::target};

// What a lease says when a fan does not pass.
std::string refusal(LeaseKind lease, FanCheck check);

// What keeps the fan from passing; absent when it passes. Asks the hardware for the fan's target in
// that check alone.
std::optional<LeaseObstacle> findObstacle(LeaseKind lease, FanCheck check, const FanReading& fan,
                                          CoolingHardware& hardware);

struct PlannedFan {
    int id;
    double minimum, maximum;  // rpm
};

// The fans that a lease takes: all that are listed, in that order. Reads only; throws a ScopeError
// when one of them does not pass a check, or when there is none.
std::vector<PlannedFan> planFans(LeaseKind lease, CoolingHardware& hardware);
std::vector<int> idsOf(const std::vector<PlannedFan>& plan);

// Absent while every planned fan is still listed, manual, and less than `toleranceRpm` away from
// the target that was written (by fan index). Else of the first fan that is not: `occupied` when
// somebody has changed it, `unreadable` when nothing tells.
std::optional<ResultCode> lossOf(const std::vector<PlannedFan>& plan,
                                 const std::map<int, double>& written, double toleranceRpm,
                                 CoolingHardware& hardware);

namespace CoolingLease {

// Throws unless the target speed that a fan already has can be read and lies within its rated
// range: it is what the fan follows from the moment it becomes manual.
void validateInheritedTarget(const FanReading& fan, CoolingHardware& hardware);

}  // namespace CoolingLease
}  // namespace ferovane
