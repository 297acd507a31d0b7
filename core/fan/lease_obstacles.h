// Why a lease would not take the fans: found out by reading alone, without privileges.
//
// Every check and every message is the lease's own.
#pragma once

#include <array>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/fan/cooling_hardware.h"
#include "core/fan/fan_curve.h"
#include "core/fan/lease_plan.h"
#include "core/model/snapshot.h"

namespace ferovane {

std::string_view title(LeaseObstacleKind kind);

struct LeaseForecast {
    LeaseKind lease = LeaseKind::cooling;

    // What the lease would say; absent when nothing that can be read speaks against it. Then it
    // could still fail when it writes.
    std::optional<std::string> message;

    // False for a message that the lease gives only if the controller insists on its lock.
    bool certain = true;

    // What is wrong with the curve, then of each fan the first thing that is, then what is missing
    // of the sample. Empty exactly when there is no message.
    std::vector<LeaseObstacle> obstacles;

    bool operator==(const LeaseForecast&) const = default;
};

// How a machine's fans are read. All of them must outlive the call.
struct ReadableFans {
    CoolingHardware& hardware;  // asked for fans() and target() only
    // A key's number; absent when it cannot be read or is none.
    std::function<std::optional<double>(const std::string& key)> number;
    bool appleSilicon = false;  // fans are handed over, not switched
    // What writing the unlock key of Apple Silicon fails with: SMC::notAdmitted(FanKeys::kUnlock).
    std::string unlockRefusal;
};

namespace LeaseObstacles {

// Of the cooling lease and of the curve lease, in this order, were they started now; the curve
// lease on `curve` and, in its first round, on `sample`. Reads only.
std::array<LeaseForecast, 2> forecast(const ReadableFans& machine, const FanCurve& curve,
                                      const Snapshot& sample);

}  // namespace LeaseObstacles
}  // namespace ferovane
