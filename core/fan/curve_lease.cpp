#include "core/fan/curve_lease.h"

#include <cmath>
#include <optional>

#include "core/fan/curve_policy.h"
#include "core/fan/fan_keys.h"
#include "core/fan/hand_back.h"
#include "core/fan/lease_plan.h"
#include "core/model/scope_error.h"

namespace ferovane::CurveLease {
namespace {

// A target reads back rounded to the controller's own steps, which are below this.
constexpr double kTargetToleranceRpm = 3.0;

// What the fans were last told, from round to round.
class Rounds {
public:
    Rounds(CoolingHardware& hardware, const FanCurve& curve, const std::vector<PlannedFan>& plan)
        : hardware_(hardware), curve_(curve), plan_(plan) {}

    // Drives the fans by one sample; tells whether the machine's heat overruled the curve.
    bool drive(const Snapshot& snapshot) {
        const double celsius = controlTemperature(curve_, snapshot);
        const bool first = !percent_;
        if (!first) {
            requireHeld();
        }
        const bool hot = CurvePolicy::requiresMaximum(snapshot);
        percent_ =
            CurvePolicy::followed(percent_, hot ? FanCurve::kFullPercent : curve_.percent(celsius));
        for (const PlannedFan& fan : plan_) {
            if (first) {
                hardware_.setManual(fan.id, true);
            }
            const double rpm = CurvePolicy::rpm(*percent_, fan.minimum, fan.maximum);
            if (first || CurvePolicy::isWorthWriting(lastWritten(fan.id), rpm)) {
                hardware_.setTarget(fan.id, rpm);
                written_[fan.id] = rpm;
            }
        }
        return hot;
    }

    const std::map<int, double>& written() const { return written_; }

private:
    void requireHeld() {
        if (const auto loss = lossOf(plan_, written_, kTargetToleranceRpm, hardware_)) {
            throw ScopeError("风扇控制被改变或无法读取，已停止曲线", *loss);
        }
    }

    double lastWritten(int id) const {
        const auto last = written_.find(id);
        return last == written_.end() ? 0 : last->second;
    }

    CoolingHardware& hardware_;
    const FanCurve& curve_;
    const std::vector<PlannedFan>& plan_;
    std::map<int, double> written_;  // rpm by fan index, confirmed
    std::optional<double> percent_;  // of the previous round; absent before the first
};

}  // namespace

double controlTemperature(const FanCurve& curve, const Snapshot& snapshot) {
    const std::optional<double> followed = temperature(curve.sensor, snapshot);
    if (!snapshot.cpuTemperature() || !followed || !std::isfinite(*followed)) {
        throw ScopeError("控制温度传感器不可用，已停止曲线并恢复系统自动", ResultCode::unreadable);
    }
    return *followed;
}

void run(CoolingHardware& hardware, const FanCurve& curve, double duration, const Sample& sample,
         const LeaseClock& now, const LeaseCancelled& isCancelled, const LeasePause& wait,
         const OnUpdate& onUpdate, const OnApplied& onApplied) {
    curve.validate();
    if (!(duration > 0 && duration <= FanLimits::kLeaseSeconds)) {
        throw ScopeError("曲线会话最长 30 分钟", ResultCode::invalid);
    }
    if (isCancelled()) {
        return;
    }
    const std::vector<PlannedFan> plan = planFans(LeaseKind::curve, hardware);
    const double start = now();
    const LeaseSpan span{start, start + duration};
    if (!span.contains(now()) || isCancelled()) {
        return;  // nothing has been touched, so there is nothing to hand back
    }

    CoolingLease::handBackAfter(idsOf(plan), hardware, [&] {
        Rounds rounds(hardware, curve, plan);
        bool applied = false;
        do {
            const bool hot = rounds.drive(sample());
            onUpdate({span.deadline, fanTargets(rounds.written()), hot});
            if (!applied) {
                applied = true;
                onApplied();
            }
            wait(span.left(now()));
        } while (span.contains(now()) && !isCancelled());
    });
}

std::vector<FanTarget> fanTargets(const std::map<int, double>& targets) {
    std::vector<FanTarget> list;
    list.reserve(targets.size());
    for (const auto& [id, rpm] : targets) {
        list.push_back({id, rpm});
    }
    return list;
}

}  // namespace ferovane::CurveLease
