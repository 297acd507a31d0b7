#include "core/fan/lease_plan.h"

#include <algorithm>
#include <cmath>
#include <exception>

#include "core/fan/fan_keys.h"
#include "core/model/scope_error.h"

namespace ferovane {
namespace {

using Kind = LeaseObstacleKind;

std::optional<double> readTarget(int fan, CoolingHardware& hardware) {
    try {
        return hardware.target(fan);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

LeaseObstacle unreadable(Kind kind, int fan, const char* name) {
    return {kind, fan, FanKeys::of(fan, name)};
}

// Every comparison is one that no NaN passes.
std::optional<LeaseObstacle> badRating(LeaseKind lease, const FanReading& fan) {
    const auto outOfRange = [&](const char* name, double value, double limit) {
        return LeaseObstacle{Kind::ratingOutOfRange, fan.id, FanKeys::of(fan.id, name), value,
                             limit};
    };
    if (!fan.maximum) {
        return unreadable(Kind::ratingUnreadable, fan.id, FanKeys::kMaximum);
    }
    if (!(*fan.maximum > 0)) {
        return outOfRange(FanKeys::kMaximum, *fan.maximum, 0);
    }
    if (!(*fan.maximum <= FanLimits::kRatedRpm)) {
        return outOfRange(FanKeys::kMaximum, *fan.maximum, FanLimits::kRatedRpm);
    }
    if (!fan.minimum) {
        return unreadable(Kind::ratingUnreadable, fan.id, FanKeys::kMinimum);
    }
    // 0 % of a curve is the rated minimum, so a minimum of 0 would let a curve stop the fan.
    if (!(*fan.minimum >= 0) || (lease == LeaseKind::curve && *fan.minimum == 0)) {
        return outOfRange(FanKeys::kMinimum, *fan.minimum, 0);
    }
    if (!(*fan.minimum <= *fan.maximum)) {
        return outOfRange(FanKeys::kMinimum, *fan.minimum, *fan.maximum);
    }
    return std::nullopt;
}

std::optional<LeaseObstacle> notFree(LeaseKind lease, const FanReading& fan) {
    if (!fan.controllable) {
        return LeaseObstacle{Kind::notControllable, fan.id};
    }
    if (fan.manual.value_or(true)) {
        return LeaseObstacle{fan.manual ? Kind::heldByAnother : Kind::modeUncertain, fan.id};
    }
    const bool rated = fan.minimum && fan.maximum;
    return lease == LeaseKind::cooling || rated ? std::nullopt : badRating(lease, fan);
}

std::optional<LeaseObstacle> badTarget(const FanReading& fan, CoolingHardware& hardware) {
    const std::optional<double> target = readTarget(fan.id, hardware);
    if (!target || !std::isfinite(*target)) {
        return unreadable(Kind::targetUnreadable, fan.id, FanKeys::kTarget);
    }
    const std::string key = FanKeys::of(fan.id, FanKeys::kTarget);
    if (!fan.minimum || !(*target >= *fan.minimum)) {
        return LeaseObstacle{Kind::parkedBelowMinimum, fan.id, key, target, fan.minimum};
    }
    if (!fan.maximum || !(*target <= *fan.maximum)) {
        return LeaseObstacle{Kind::targetAboveMaximum, fan.id, key, target, fan.maximum};
    }
    return std::nullopt;
}

// What tells that somebody else has changed the fan, or that nothing tells; absent while it is
// held.
std::optional<ResultCode> lossOf(const PlannedFan& planned, const std::map<int, double>& written,
                                 double toleranceRpm, const std::vector<FanReading>& fans,
                                 CoolingHardware& hardware) {
    const auto fan = std::find_if(fans.begin(), fans.end(), [&](const FanReading& reading) {
        return reading.id == planned.id;
    });
    if (fan == fans.end() || !fan->manual) {
        return ResultCode::unreadable;
    }
    if (!*fan->manual) {
        return ResultCode::occupied;
    }
    const std::optional<double> target = readTarget(planned.id, hardware);
    const auto last = written.find(planned.id);
    if (target && last != written.end() && std::abs(*target - last->second) < toleranceRpm) {
        return std::nullopt;
    }
    return target && std::isfinite(*target) ? ResultCode::occupied : ResultCode::unreadable;
}

}  // namespace

std::string refusal(LeaseKind lease, FanCheck check) {
    const bool cooling = lease == LeaseKind::cooling;
    switch (check) {
        case FanCheck::free:
            return cooling ? "请先恢复系统自动风扇并退出其他风扇控制软件；也可能是此机型没有可写的"
                             "风扇接口。"
                           : "请先恢复系统自动风扇并退出其他控制程序";
        case FanCheck::rated:
            return cooling ? "风扇额定转速无法验证，已拒绝控制" : "无法验证风扇额定范围";
        case FanCheck::target:
            break;
    }
    return "风扇当前目标转速无法验证，已拒绝切换手动模式";
}

std::optional<LeaseObstacle> findObstacle(LeaseKind lease, FanCheck check, const FanReading& fan,
                                          CoolingHardware& hardware) {
    switch (check) {
        case FanCheck::free:
            return notFree(lease, fan);
        case FanCheck::rated:
            return badRating(lease, fan);
        case FanCheck::target:
            break;
    }
    return badTarget(fan, hardware);
}

std::vector<PlannedFan> planFans(LeaseKind lease, CoolingHardware& hardware) {
    const std::vector<FanReading> fans = hardware.fans();
    if (fans.empty()) {
        throw ScopeError(refusal(lease, FanCheck::free), ResultCode::unreadable);
    }
    for (const FanCheck check : kFanChecks) {
        for (const FanReading& fan : fans) {
            if (const auto obstacle = findObstacle(lease, check, fan, hardware)) {
                const bool isTaken = obstacle->kind == Kind::heldByAnother;
                throw ScopeError(refusal(lease, check),
                                 isTaken ? ResultCode::occupied : ResultCode::unreadable);
            }
        }
    }
    std::vector<PlannedFan> plan;
    plan.reserve(fans.size());
    for (const FanReading& fan : fans) {
        plan.push_back({fan.id, *fan.minimum, *fan.maximum});
    }
    return plan;
}

std::vector<int> idsOf(const std::vector<PlannedFan>& plan) {
    std::vector<int> ids;
    ids.reserve(plan.size());
    for (const PlannedFan& fan : plan) {
        ids.push_back(fan.id);
    }
    return ids;
}

std::optional<ResultCode> lossOf(const std::vector<PlannedFan>& plan,
                                 const std::map<int, double>& written, double toleranceRpm,
                                 CoolingHardware& hardware) {
    try {
        const std::vector<FanReading> fans = hardware.fans();
        for (const PlannedFan& fan : plan) {
            if (const auto loss = lossOf(fan, written, toleranceRpm, fans, hardware)) {
                return loss;
            }
        }
        return std::nullopt;
    } catch (const std::exception&) {
        return ResultCode::unreadable;
    }
}

void CoolingLease::validateInheritedTarget(const FanReading& fan, CoolingHardware& hardware) {
    if (badTarget(fan, hardware)) {
        throw ScopeError(refusal(LeaseKind::cooling, FanCheck::target), ResultCode::unreadable);
    }
}

}  // namespace ferovane
