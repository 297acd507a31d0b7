#include "core/fan/cooling_lease.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <optional>
#include <string>

#include "core/fan/fan_checks.h"
#include "core/fan/fan_keys.h"
#include "core/fan/lease_span.h"
#include "core/fan/restore_failure.h"
#include "core/model/scope_error.h"

namespace ferovane::CoolingLease {
namespace {

// A target reads back rounded to the controller's own steps, which are below this.
constexpr double kTargetToleranceRpm = 2.0;

struct PlannedFan {
    int id;
    double maximum;  // rpm
};

bool isRatedRangeCredible(const FanReading& fan) {
    if (!fan.minimum || !fan.maximum) {
        return false;
    }
    return std::isfinite(*fan.maximum) && *fan.maximum > 0 &&
           *fan.maximum <= FanLimits::kRatedRpm && std::isfinite(*fan.minimum) &&
           *fan.minimum >= 0 && *fan.minimum <= *fan.maximum;
}

// Reads and refuses; writes nothing.
std::vector<PlannedFan> planFans(CoolingHardware& hardware) {
    const std::vector<FanReading> fans = hardware.fans();
    if (!FanChecks::allFree(fans)) {
        throw ScopeError(
            "请先恢复系统自动风扇并退出其他风扇控制软件；也可能是此机型没有可写的风扇接口。");
    }
    std::vector<PlannedFan> plan;
    plan.reserve(fans.size());
    for (const FanReading& fan : fans) {
        if (!isRatedRangeCredible(fan)) {
            throw ScopeError("风扇额定转速无法验证，已拒绝控制");
        }
        plan.push_back({fan.id, *fan.maximum});
    }
    for (const FanReading& fan : fans) {
        validateInheritedTarget(fan, hardware);
    }
    return plan;
}

bool areHeld(const std::vector<PlannedFan>& plan, CoolingHardware& hardware) {
    const std::vector<FanReading> fans = hardware.fans();
    return std::all_of(plan.begin(), plan.end(), [&](const PlannedFan& fan) {
        return FanChecks::isHeldAt(fan.id, fan.maximum, kTargetToleranceRpm, fans, hardware);
    });
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
    const std::vector<PlannedFan> plan = planFans(hardware);
    std::vector<int> ids;
    ids.reserve(plan.size());
    for (const PlannedFan& fan : plan) {
        ids.push_back(fan.id);
    }
    const double start = now();
    const LeaseSpan span{start, start + duration};

    handBackAfter(ids, hardware, [&] {
        for (const PlannedFan& fan : plan) {
            if (isCancelled() || !span.contains(now())) {
                throw ScopeError("散热会话已取消或超时");
            }
            hardware.setManual(fan.id, true);
            hardware.setTarget(fan.id, fan.maximum);
        }
        while (span.contains(now()) && !isCancelled()) {
            if (!areHeld(plan, hardware)) {
                throw ScopeError("检测到风扇状态改变或无法读取，散热会话已停止");
            }
            wait();
        }
    });
}

void restoreAuto(const std::vector<int>& ids, CoolingHardware& hardware) {
    bool failed = false;
    std::vector<std::string> failures;
    for (const int id : ids) {
        try {
            try {
                hardware.setManual(id, false);
            } catch (const ScopeError& error) {
                failed = true;
                failures.push_back(error.message());
            } catch (const std::exception& error) {
                failed = true;
                // Its text names no fan, and the user must learn which one it was.
                failures.push_back("F" + std::to_string(id) + "Md：" + describe(error));
            }
        } catch (...) {
            // Even when there is no memory left to say why: the other fans come first, and the
            // failure itself is not forgotten.
            failed = true;
        }
    }
    if (failed) {
        throw ScopeError(restoreFailure(failures));
    }
}

void handBackAfter(const std::vector<int>& ids, CoolingHardware& hardware,
                   const std::function<void()>& act) {
    try {
        act();
    } catch (...) {
        try {
            restoreAuto(ids, hardware);
        } catch (...) {
            // Dropped: the user is to hear what ended the lease, not what followed from it.
        }
        throw;
    }
    restoreAuto(ids, hardware);
}

void validateInheritedTarget(const FanReading& fan, CoolingHardware& hardware) {
    const std::optional<double> target = hardware.target(fan.id);
    // Comparisons that hold for no NaN; a finite range leaves no room for an infinite target.
    if (!fan.minimum || !fan.maximum || !target || !std::isfinite(*target) ||
        !(*target >= *fan.minimum && *target <= *fan.maximum)) {
        throw ScopeError("风扇当前目标转速无法验证，已拒绝切换手动模式");
    }
}

}  // namespace ferovane::CoolingLease
