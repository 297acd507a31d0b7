#include "core/fan/lease_obstacles.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "core/fan/apple_silicon_fan_control.h"
#include "core/fan/curve_lease.h"
#include "core/fan/fan_keys.h"
#include "core/model/scope_error.h"

namespace ferovane {
namespace {

using Kind = LeaseObstacleKind;

// The order in which a lease comes to what it may refuse; the three checks of fans lie between.
constexpr int kAtCurve = -1;
constexpr int kAtTemperature = 10;
constexpr int kAtHandOver = 11;

class Forecaster {
public:
    Forecaster(LeaseKind lease, const ReadableFans& machine)
        : machine_(machine),
          handOver_([this](const std::string& key) { return read(key); },
                    [](const std::string&, double) {}, [] {}, [] { return 0.0; }) {
        forecast_.lease = lease;
    }

    LeaseForecast on(const FanCurve& curve, const Snapshot& sample) {
        const bool follows = forecast_.lease == LeaseKind::curve;
        if (follows) {
            attempt(kAtCurve, {Kind::invalidCurve}, [&] { curve.validate(); });
        }
        lookAtFans();
        if (follows) {
            attempt(kAtTemperature, {Kind::noControlTemperature},
                    [&] { CurveLease::controlTemperature(curve, sample); });
        }
        if (!forecast_.message && machine_.appleSilicon && machine_.number(FanKeys::kUnlock)) {
            meetLock();
        }
        return std::move(forecast_);
    }

private:
    void add(int stage, LeaseObstacle obstacle, std::string message) {
        if (stage < stage_) {
            stage_ = stage;
            forecast_.message = message;
        }
        obstacle.message = std::move(message);
        forecast_.obstacles.push_back(std::move(obstacle));
    }

    template <class Act>
    void attempt(int stage, const LeaseObstacle& obstacle, Act act) {
        try {
            act();
        } catch (const std::exception& error) {
            add(stage, obstacle, describe(error));
        }
    }

    void lookAtFans() {
        attempt(static_cast<int>(FanCheck::free), {Kind::noFans}, [&] {
            fans_ = machine_.hardware.fans();
            if (fans_.empty()) {
                throw ScopeError(refusal(forecast_.lease, FanCheck::free));
            }
        });
        for (const FanReading& fan : fans_) {
            if (!refuses(fan) && machine_.appleSilicon) {
                attempt(kAtHandOver, notHandedOver(fan), [&] { handOver_.requireFree(fan.id); });
            }
        }
    }

    bool refuses(const FanReading& fan) {
        for (const FanCheck check : kFanChecks) {
            if (auto found = findObstacle(forecast_.lease, check, fan, machine_.hardware)) {
                add(static_cast<int>(check), explained(*found, fan),
                    refusal(forecast_.lease, check));
                return true;
            }
        }
        return false;
    }

    // With what the fan's keys tell beyond its reading.
    LeaseObstacle explained(const LeaseObstacle& found, const FanReading& fan) {
        if (found.kind == Kind::heldByAnother || found.kind == Kind::modeUncertain) {
            return notAutomatic(fan);
        }
        if (found.kind == Kind::notControllable) {
            for (const FanCheck check : {FanCheck::target, FanCheck::rated}) {
                const auto cause = findObstacle(LeaseKind::cooling, check, fan, machine_.hardware);
                if (cause && (cause->kind == Kind::targetUnreadable ||
                              cause->key == FanKeys::of(fan.id, FanKeys::kMaximum))) {
                    return *cause;
                }
            }
        }
        return found;
    }

    LeaseObstacle notAutomatic(const FanReading& fan) {
        const auto mask = machine_.number(FanKeys::kForcedMask);
        for (const char* name : FanKeys::kModes) {
            const std::string key = FanKeys::of(fan.id, name);
            const auto mode = machine_.number(key);
            if (mode && !FanMode::isAutomatic(*mode)) {
                return {Kind::heldByAnother, fan.id, key, mode};
            }
            if (mode && mask.value_or(0) == 0) {
                return {Kind::modeUncertain, fan.id, key, mode};
            }
            if (mode) {
                return forced(fan, mask);
            }
        }
        // Where a fan is handed over, a mask that calls it automatic is of no use.
        return !mask || !fan.manual.value_or(true)
                   ? LeaseObstacle{Kind::noModeKey, fan.id, FanKeys::of(fan.id, FanKeys::kMode)}
                   : forced(fan, mask);
    }

    // By the mask: this fan, or some other.
    static LeaseObstacle forced(const FanReading& fan, std::optional<double> mask) {
        const bool itself = fan.manual.value_or(false);
        return {itself ? Kind::heldByAnother : Kind::modeUncertain, fan.id, FanKeys::kForcedMask,
                mask};
    }

    LeaseObstacle notHandedOver(const FanReading& fan) {
        const auto unlock = machine_.number(FanKeys::kUnlock);
        return unlock.value_or(0) != 0
                   ? LeaseObstacle{Kind::handOverOccupied, fan.id, FanKeys::kUnlock, unlock}
                   : notAutomatic(fan);
    }

    void meetLock() {
        forecast_.certain = false;
        const auto unlock = machine_.number(FanKeys::kUnlock);
        for (const FanReading& fan : fans_) {
            add(kAtHandOver, {Kind::handOverLocked, fan.id, FanKeys::kUnlock, unlock},
                machine_.unlockRefusal);
        }
    }

    double read(const std::string& key) const {
        if (const auto number = machine_.number(key)) {
            return *number;
        }
        throw ScopeError(key);  // never told: the hand-over has its own words for it
    }

    const ReadableFans& machine_;
    AppleSiliconFanControl handOver_;
    LeaseForecast forecast_;
    int stage_ = kAtHandOver + 1;  // at which the lease would end
    std::vector<FanReading> fans_;
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

namespace LeaseObstacles {

std::array<LeaseForecast, 2> forecast(const ReadableFans& machine, const FanCurve& curve,
                                      const Snapshot& sample) {
    return {Forecaster(LeaseKind::cooling, machine).on(curve, sample),
            Forecaster(LeaseKind::curve, machine).on(curve, sample)};
}

}  // namespace LeaseObstacles
}  // namespace ferovane
