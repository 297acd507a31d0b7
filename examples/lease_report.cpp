#include "examples/lease_report.h"

#include "core/fan/fan_curve.h"
#include "core/fan/fan_keys.h"
#include "core/fan/lease_obstacles.h"

using namespace ferovane;

namespace {

LeaseRow rowOf(const LeaseForecast& forecast) {
    LeaseRow row{forecast.lease == LeaseKind::cooling ? "cooling" : "curve",
                 forecast.message,
                 forecast.certain,
                 {}};
    for (const LeaseObstacle& obstacle : forecast.obstacles) {
        row.obstacles.push_back({obstacle.fan, std::string(title(obstacle.kind)), obstacle.key,
                                 obstacle.message, obstacle.value, obstacle.limit});
    }
    return row;
}

}  // namespace

std::vector<LeaseRow> leaseReport(SMC& smc, const Snapshot& sample) {
    const ReadableFans fans{smc, [&](const std::string& key) { return smc.number(key); },
                            SMC::Surroundings::ofThisMachine().appleSilicon,
                            SMC::notAdmitted(FanKeys::kUnlock)};
    std::vector<LeaseRow> rows;
    for (const auto& forecast : LeaseObstacles::forecast(fans, FanCurve::balanced(), sample)) {
        rows.push_back(rowOf(forecast));
    }
    return rows;
}
