#include "core/fan/cooling_lease.h"

#include <map>
#include <vector>

#include "core/fan/fan_keys.h"
#include "core/model/scope_error.h"

namespace ferovane::CoolingLease {
namespace {

// A target reads back rounded to the controller's own steps, which are below this.
constexpr double kTargetToleranceRpm = 2.0;

std::map<int, double> fullSpeed(const std::vector<PlannedFan>& plan) {
    std::map<int, double> targets;
    for (const PlannedFan& fan : plan) {
        targets[fan.id] = fan.maximum;
    }
    return targets;
}

}  // namespace

void run(CoolingHardware& hardware, double duration, const LeaseClock& now,
         const LeaseCancelled& isCancelled, const LeasePause& wait) {
    if (!(duration > 0 && duration <= FanLimits::kCoolingSeconds)) {
        throw ScopeError("散热会话必须在 5 分钟以内");
    }
    if (isCancelled()) {
        return;
    }
    const std::vector<PlannedFan> plan = planFans(LeaseKind::cooling, hardware);
    const std::map<int, double> targets = fullSpeed(plan);
    const double start = now();
    const LeaseSpan span{start, start + duration};

    handBackAfter(idsOf(plan), hardware, [&] {
        for (const PlannedFan& fan : plan) {
            if (isCancelled() || !span.contains(now())) {
                throw ScopeError("散热会话已取消或超时");
            }
            hardware.setManual(fan.id, true);
            hardware.setTarget(fan.id, fan.maximum);
        }
        while (span.contains(now()) && !isCancelled()) {
            if (const auto loss = lossOf(plan, targets, kTargetToleranceRpm, hardware)) {
                throw ScopeError("检测到风扇状态改变或无法读取，散热会话已停止", *loss);
            }
            wait(span.left(now()));
        }
    });
}

}  // namespace ferovane::CoolingLease
