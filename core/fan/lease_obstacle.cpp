#include "core/fan/lease_obstacle.h"

#include <cmath>

#include "core/fan/fan_keys.h"
#include "core/fan/fan_rehearsal.h"
#include "core/model/scope_error.h"

namespace ferovane {
namespace {

using Kind = LeaseObstacleKind;

// Finds out what, of all that a lease asks of a fan, makes it refuse this one; in the lease's
// order.
class Explanation {
public:
    Explanation(LeaseKind lease, const FanReading& fan, FanReadings& readings)
        : lease_(lease), fan_(fan), readings_(readings) {}

    LeaseObstacle find() {
        if (auto obstacle = fan_.controllable ? std::nullopt : notControllable()) {
            return *obstacle;
        }
        if (fan_.manual.value_or(true)) {
            return notAutomatic();
        }
        if (auto obstacle = badRating()) {
            return *obstacle;
        }
        if (auto obstacle = badTarget()) {
            return *obstacle;
        }
        return notHandedOver();
    }

private:
    LeaseObstacle obstacle(Kind kind, const std::string& key, std::optional<double> value,
                           std::optional<double> limit = std::nullopt) const {
        return {kind, fan_.id, key, value, limit, {}};
    }

    std::optional<double> readTarget() {
        try {
            const auto target = readings_.target(fan_.id);
            return target && std::isfinite(*target) ? target : std::nullopt;
        } catch (const ScopeError&) {
            return std::nullopt;
        }
    }

    std::optional<LeaseObstacle> notControllable() {
        if (!readTarget()) {
            return obstacle(Kind::targetUnreadable, FanKeys::of(fan_.id, FanKeys::kTarget),
                            std::nullopt);
        }
        if (auto rating = badMaximum()) {
            return rating;
        }
        return obstacle(Kind::notControllable, {}, std::nullopt);
    }

    std::optional<LeaseObstacle> badMaximum() const {
        const std::string key = FanKeys::of(fan_.id, FanKeys::kMaximum);
        if (!fan_.maximum) {
            return obstacle(Kind::ratingUnreadable, key, std::nullopt);
        }
        if (!(*fan_.maximum > 0)) {
            return obstacle(Kind::ratingOutOfRange, key, fan_.maximum, 0);
        }
        if (!(*fan_.maximum <= FanLimits::kRatedRpm)) {
            return obstacle(Kind::ratingOutOfRange, key, fan_.maximum, FanLimits::kRatedRpm);
        }
        return std::nullopt;
    }

    std::optional<LeaseObstacle> badRating() const {
        if (auto maximum = badMaximum()) {
            return maximum;
        }
        const std::string key = FanKeys::of(fan_.id, FanKeys::kMinimum);
        if (!fan_.minimum) {
            return obstacle(Kind::ratingUnreadable, key, std::nullopt);
        }
        const double minimum = *fan_.minimum;
        const bool stops = lease_ == LeaseKind::curve && minimum == 0;
        if (!(minimum >= 0) || stops) {
            return obstacle(Kind::ratingOutOfRange, key, minimum, 0);
        }
        if (!(minimum <= *fan_.maximum)) {
            return obstacle(Kind::ratingOutOfRange, key, minimum, fan_.maximum);
        }
        return std::nullopt;
    }

    std::optional<LeaseObstacle> badTarget() {
        const std::string key = FanKeys::of(fan_.id, FanKeys::kTarget);
        const auto target = readTarget();
        if (!target) {
            return obstacle(Kind::targetUnreadable, key, std::nullopt);
        }
        if (*target < *fan_.minimum) {
            return obstacle(Kind::parkedBelowMinimum, key, target, fan_.minimum);
        }
        if (*target > *fan_.maximum) {
            return obstacle(Kind::targetAboveMaximum, key, target, fan_.maximum);
        }
        return std::nullopt;
    }

    LeaseObstacle notAutomatic() {
        const auto mask = readings_.number(FanKeys::kForcedMask);
        for (const char* suffix : FanKeys::kModes) {
            const std::string key = FanKeys::of(fan_.id, suffix);
            const auto mode = readings_.number(key);
            if (!mode) {
                continue;
            }
            if (!FanMode::isAutomatic(*mode)) {
                return obstacle(Kind::heldByAnother, key, mode);
            }
            return mask.value_or(0) != 0 ? forced(mask) : obstacle(Kind::modeUncertain, key, mode);
        }
        // Where a fan is handed over, a mask that calls it automatic is of no use.
        if (!mask || !fan_.manual.value_or(true)) {
            return obstacle(Kind::noModeKey, FanKeys::of(fan_.id, FanKeys::kMode), std::nullopt);
        }
        return forced(mask);
    }

    // By the mask: this fan, or some other.
    LeaseObstacle forced(std::optional<double> mask) const {
        const bool itself = fan_.manual.value_or(false);
        return obstacle(itself ? Kind::heldByAnother : Kind::modeUncertain, FanKeys::kForcedMask,
                        mask);
    }

    LeaseObstacle notHandedOver() {
        const auto unlock = readings_.number(FanKeys::kUnlock);
        return unlock.value_or(0) != 0 ? obstacle(Kind::handOverOccupied, FanKeys::kUnlock, unlock)
                                       : notAutomatic();
    }

    LeaseKind lease_;
    const FanReading& fan_;
    FanReadings& readings_;
};

}  // namespace

std::string_view title(LeaseObstacleKind kind) {
    switch (kind) {
        case Kind::invalidCurve:
            return "曲线无效";
        case Kind::noFans:
            return "没有可用的风扇";
        case Kind::targetUnreadable:
            return "目标转速无法读取";
        case Kind::ratingUnreadable:
            return "额定转速无法读取";
        case Kind::ratingOutOfRange:
            return "额定转速超出可信范围";
        case Kind::notControllable:
            return "风扇不接受控制";
        case Kind::heldByAnother:
            return "由其他程序控制";
        case Kind::modeUncertain:
            return "无法确认系统自动";
        case Kind::noModeKey:
            return "没有可识别的模式接口";
        case Kind::parkedBelowMinimum:
            return "目标转速低于额定最低转速";
        case Kind::targetAboveMaximum:
            return "目标转速高于额定最高转速";
        case Kind::noControlTemperature:
            return "控制温度不可用";
        case Kind::handOverOccupied:
            return "控制交接已被占用";
        case Kind::handOverLocked:
            return "控制交接可能被锁定";
    }
    return {};
}

LeaseObstacle explainRefusal(LeaseKind lease, const FanReading& fan, FanReadings& readings) {
    return Explanation(lease, fan, readings).find();
}

}  // namespace ferovane
