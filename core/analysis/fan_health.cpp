#include "core/analysis/fan_health.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "core/analysis/numbers.h"

namespace ferovane {
namespace {

constexpr double kTurningRpm = 100;        // slower is not turning: tachometers cannot tell
constexpr double kStoppedShare = 0.1;      // of the target
constexpr double kLeastTargetRpm = 300;    // below it a target is no order to turn
constexpr double kSameTargetRpm = 50;      // a phase goes on while the target moves less, or
constexpr double kSameTargetShare = 0.02;  // less than this share of the maximum
constexpr double kFastShare = 1.4;         // of the target
constexpr double kFastRpm = 300;           // and so much above it
constexpr double kPhaseSeconds = 30;       // that long a steady phase says what a fan reaches
constexpr int kKnownPhases = 3;            // before that the target itself is expected
constexpr double kVerdictSamples = 3;      // that a verdict takes, however slow the sampling
constexpr double kWornShare = 0.8;         // of the usual, at the maximum

double usualSpeed(const FanHabit& habit, double target) {
    return habit.phases >= kKnownPhases ? habit.share * target : target;
}

bool isStopped(double target, double speed) {
    return target >= kLeastTargetRpm && speed < std::max(kTurningRpm, kStoppedShare * target);
}

}  // namespace

FanHealth::FanHealth(const std::vector<FanHabit>& saved, double longestGapSeconds)
    : clock_(longestGapSeconds) {
    for (const FanHabit& habit : saved) {
        fans_[habit.id].habit = habit;
    }
}

void FanHealth::add(const Snapshot& snapshot, std::span<const FanTarget> targets) {
    if (clock_.advance(snapshot.date) == ObservationClock::Step::ignored) {
        return;
    }
    std::vector<Sample> samples;
    for (const FanReading& reading : snapshot.fans) {
        if (reading.id < 0 || reading.id >= kMostFans) {
            continue;
        }
        Fan& fan = fans_[reading.id];
        fan.habit.id = reading.id;
        const auto speed = ifFinite(reading.rpm);
        const auto target = std::ranges::find(targets, reading.id, &FanTarget::id);
        if (!speed || target == targets.end() || !std::isfinite(target->rpm)) {
            fan.state = FanState::unreadable;
        } else {
            samples.push_back(
                {fan, snapshot.date, target->rpm, *speed, ifFinite(reading.maximum).value_or(0)});
        }
    }
    const bool together = samples.size() > 1 && std::ranges::all_of(samples, [](const Sample& it) {
                              return it.fan.before >= kTurningRpm && isStopped(it.target, it.speed);
                          });
    for (const Sample& sample : samples) {
        Fan& fan = sample.fan;
        fan.together = together || (fan.together && sample.speed < kTurningRpm);
        follow(sample);
        fan.last = sample.date;
        fan.before = sample.speed;
    }
}

// Says where the fan is in its phase, and judges it when it may be.
void FanHealth::follow(const Sample& sample) {
    const auto& [fan, date, target, speed, maximum] = sample;
    const bool continues = continuesObservation(fan.last, date, clock_.longestGapSeconds());
    const double same = std::max(kSameTargetRpm, kSameTargetShare * maximum);
    if (!continues || std::abs(target - fan.target) > same) {
        fan.target = target;
        fan.shareSum = fan.steadySeconds = 0;
        fan.settledAt =
            continues ? std::max(fan.settledAt, date + kSettlingSeconds) : date + kWakingSeconds;
    }
    const bool settled = date >= fan.settledAt;
    fan.state = target < kTurningRpm && speed < kTurningRpm ? FanState::off
                : settled                                   ? FanState::steady
                                                            : FanState::settling;
    if (settled) {
        judge(sample, date - *fan.last);
    }
}

void FanHealth::judge(const Sample& sample, double passed) {
    Fan& fan = sample.fan;
    const double target = sample.target, speed = sample.speed;
    const auto count = [&](Evidence& evidence, bool seen, double limit, double expected) {
        const double step = std::min(passed, limit / kVerdictSamples);
        seen ? evidence.see(step, limit, sample.date, expected, speed) : evidence.miss(step);
    };
    const double usual = usualSpeed(fan.habit, target);
    const bool stopped = isStopped(target, speed), asked = target >= kLeastTargetRpm;
    count(fan.stopped, stopped, kStoppedSeconds, target);
    if (stopped) {
        return;
    }
    fan.turning.reset();
    count(fan.slow, asked && speed < kLowShare * usual, kSlowSeconds, usual);
    count(fan.unasked, speed > std::max(kFastShare * target, target + kFastRpm), kUnaskedSeconds,
          target);
    if (asked && fan.steadySeconds < kPhaseSeconds) {
        fan.shareSum += speed / target * passed;
        fan.steadySeconds += passed;
        if (fan.steadySeconds >= kPhaseSeconds) {
            finishPhase(sample);
        }
    }
}

// A steady phase has lasted long enough to say what the fan reaches.
void FanHealth::finishPhase(const Sample& sample) {
    const auto& [fan, date, target, speed, maximum] = sample;
    FanHabit& habit = fan.habit;
    const double share = fan.shareSum / fan.steadySeconds;
    const double reached = share * fan.target, usual = usualSpeed(habit, fan.target);
    if (maximum > 0 && fan.target >= kTopShare * maximum) {
        if (reached >= kReachedShare * usual) {
            habit.ceiling = {};
        } else if (habit.ceiling.count == 0 || habit.ceilingDay != dayOf(date)) {
            habit.ceilingDay = dayOf(date);
            habit.ceiling.see(1, kCeilingDays, date, usual, reached);
        }
    }
    const bool well = !fan.slow.raised && habit.ceiling.count == 0;
    if (well && share >= kLeastHabit && share <= kMostHabit && habit.phases < kMostPhases) {
        ++habit.phases;
        habit.share += (share - habit.share) / habit.phases;
    }
}

void FanHealth::noteTurning(std::optional<bool> turning) {
    for (auto& [id, fan] : fans_) {
        if (turning && fan.stopped.raised) {
            fan.turning = turning;
        }
    }
}

FanState FanHealth::state(int id) const {
    const auto found = fans_.find(id);
    return found == fans_.end() ? FanState::unreadable : found->second.state;
}

std::vector<HealthFinding> FanHealth::findings() const {
    using Severity = DiagnosticSeverity;
    std::vector<HealthFinding> list;
    for (const auto& [id, fan] : fans_) {
        const auto tell = [&, id = id](HealthKind kind, const Evidence& evidence, bool confirmed,
                                       Severity severity = Severity::warning) {
            list.push_back(
                {kind, severity,
                 confirmed ? DiagnosticConfidence::confirmed : DiagnosticConfidence::possible,
                 std::to_string(id), "风扇 " + std::to_string(id + 1), evidence});
        };
        const Evidence& ceiling = fan.habit.ceiling;
        if (fan.stopped.raised) {
            // All at once: rather the reading than the fans, unless the heat says otherwise.
            const bool silent = fan.turning.value_or(fan.together);
            tell(silent ? HealthKind::tachometerSilent : HealthKind::fanStopped, fan.stopped,
                 fan.turning.has_value());
            continue;
        }
        if (fan.slow.raised) {
            tell(HealthKind::fanSlow, fan.slow, true);
        } else if (ceiling.raised) {
            const bool worn = ceiling.measured < kWornShare * ceiling.expected.value_or(0);
            tell(HealthKind::fanCeiling, ceiling, true,
                 worn ? Severity::warning : Severity::information);
        }
        if (fan.unasked.raised && fan.habit.phases >= kKnownPhases) {
            tell(HealthKind::fanUnasked, fan.unasked, false);
        }
    }
    return list;
}

std::vector<FanHabit> FanHealth::habits() const {
    std::vector<FanHabit> list;
    for (const auto& [id, fan] : fans_) {
        list.push_back(fan.habit);
    }
    return list;
}

}  // namespace ferovane
