#include "core/analysis/fan_health.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "core/analysis/observation_clock.h"

namespace ferovane {
namespace {

constexpr double kTurningRpm = 100;        // slower is not turning: tachometers cannot tell
constexpr double kStoppedShare = 0.1;      // of the target
constexpr double kLeastTargetRpm = 300;    // below it a target is no order to turn
constexpr double kSameTargetRpm = 50;      // a phase goes on while the target moves less, or
constexpr double kSameTargetShare = 0.02;  // less than this share of the maximum
constexpr double kFastShare = 1.4;         // of the target
constexpr double kFastRpm = 300;           // and so much above it
// A phase this long says what a fan reaches; shares beyond these are no habit but a fault.
constexpr double kPhaseSeconds = 30;
constexpr double kLeastHabit = 0.9, kMostHabit = 1.1;
constexpr int kKnownPhases = 3;  // before that the target itself is expected
constexpr int kMostPhases = 20;  // then it is not learned any more: wear is no habit
// However slow the sampling, a verdict takes this many samples.
constexpr double kVerdictSamples = 3;
constexpr double kWornShare = 0.8;

int tenthOf(double target, double maximum) {
    return maximum > 0 ? static_cast<int>(std::clamp(target / maximum * 10, 0.0, 9.0)) : 0;
}

FanResponsePart& partOf(FanHabit& habit, int tenth) {
    const auto found = std::ranges::find(habit.parts, tenth, &FanResponsePart::tenth);
    return found != habit.parts.end() ? *found : habit.parts.emplace_back(FanResponsePart{tenth});
}

double usualSpeed(FanHabit& habit, double target, double maximum) {
    const FanResponsePart& part = partOf(habit, tenthOf(target, maximum));
    return part.phases >= kKnownPhases ? part.share * target : target;
}

bool isKnownToFollow(const FanHabit& habit) {
    return std::ranges::any_of(habit.parts,
                               [](const auto& part) { return part.phases >= kKnownPhases; });
}

bool isStopped(double target, double speed) {
    return target >= kLeastTargetRpm && speed < std::max(kTurningRpm, kStoppedShare * target);
}

std::optional<double> ifFinite(std::optional<double> value) {
    return value && std::isfinite(*value) ? value : std::nullopt;
}

}  // namespace

FanHealth::FanHealth(const std::vector<FanHabit>& saved) {
    for (const FanHabit& habit : saved) {
        if (habit.id >= 0 && habit.id < kMostFans) {
            fans_[habit.id].habit = habit;
        }
    }
}

void FanHealth::Count::add(bool out, double passed, double limit, Date date, double asked,
                           double seen) {
    const double step = std::min(passed, limit / kVerdictSamples);
    if (out) {
        since = seconds > 0 ? since : date;
        expected = asked;
        measured = seen;
    }
    seconds = std::clamp(seconds + (out ? step : -step), 0.0, limit);
    raised = seconds >= limit || (raised && seconds > 0);
}

void FanHealth::add(Date date, std::span<const FanSample> samples) {
    if (!std::isfinite(date.secondsSinceReference)) {
        return;
    }
    const auto fellSilent = [this](const FanSample& sample) {
        const auto known = fans_.find(sample.id);
        return known != fans_.end() && known->second.before >= kTurningRpm && sample.target &&
               sample.measured && isStopped(*sample.target, *sample.measured);
    };
    const bool together = samples.size() > 1 && std::ranges::all_of(samples, fellSilent);
    for (const FanSample& given : samples) {
        if (given.id < 0 || given.id >= kMostFans) {
            continue;
        }
        Fan& fan = fans_[given.id];
        fan.habit.id = given.id;
        const FanSample sample{given.id, ifFinite(given.target), ifFinite(given.measured),
                               ifFinite(given.maximum)};
        if (!sample.target || !sample.measured) {
            fan.state = FanState::unreadable;
            continue;
        }
        if (fan.last == date) {
            continue;
        }
        fan.together = together || (fan.together && *sample.measured < kTurningRpm);
        const double passed = continuesObservation(fan.last, date) ? date - *fan.last : 0;
        if (follow(fan, date, sample)) {
            judge(fan, date, passed, sample);
        }
        fan.last = date;
        fan.before = *sample.measured;
    }
}

// Says where the fan is in its phase; true when it may be judged.
bool FanHealth::follow(Fan& fan, Date date, const FanSample& sample) {
    const double target = *sample.target;
    const bool woke = !continuesObservation(fan.last, date);
    const double same = std::max(kSameTargetRpm, kSameTargetShare * sample.maximum.value_or(0));
    if (woke || std::abs(target - fan.target) > same) {
        fan.target = target;
        fan.phaseSince = date;
        fan.shareSum = fan.steadySeconds = 0;
        fan.phaseUsed = false;
    }
    if (woke) {
        fan.wokeAt = date;
    }
    const bool turns = *sample.measured >= kTurningRpm;
    if (target < kTurningRpm && !turns) {
        fan.state = FanState::off;
        return false;
    }
    const bool settled =
        date - fan.phaseSince >= kSettlingSeconds && date - fan.wokeAt >= kWakingSeconds;
    fan.state = settled ? FanState::steady : turns ? FanState::settling : FanState::starting;
    return settled;
}

void FanHealth::judge(Fan& fan, Date date, double passed, const FanSample& sample) {
    const double target = *sample.target, speed = *sample.measured;
    const double maximum = sample.maximum.value_or(0);
    const double usual = usualSpeed(fan.habit, target, maximum);
    const bool stopped = isStopped(target, speed);
    fan.stopped.add(stopped, passed, kStoppedSeconds, date, target, speed);
    if (!stopped) {
        fan.turning.reset();
        fan.slow.add(target >= kLeastTargetRpm && speed < kLowShare * usual, passed, kSlowSeconds,
                     date, usual, speed);
        fan.unasked.add(speed > kFastShare * target && speed > target + kFastRpm, passed,
                        kUnaskedSeconds, date, target, speed);
    }
    if (target < kLeastTargetRpm || stopped) {
        return;
    }
    fan.shareSum += speed / target * passed;
    fan.steadySeconds += passed;
    if (fan.steadySeconds >= kPhaseSeconds && !fan.phaseUsed) {
        fan.phaseUsed = true;
        finishPhase(fan, date, maximum);
    }
}

// A steady phase has lasted long enough to say what the fan reaches.
void FanHealth::finishPhase(Fan& fan, Date date, double maximum) {
    const double share = fan.shareSum / fan.steadySeconds;
    if (maximum > 0 && fan.target >= kTopShare * maximum) {
        const double usual = usualSpeed(fan.habit, fan.target, maximum);
        auto& below = fan.habit.below;
        if (share * fan.target >= kReachedShare * usual) {
            below.clear();
        } else {
            fan.habit.usual = usual;
            fan.habit.reached = share * fan.target;
            if (below.size() < kCeilingDays &&
                (below.empty() || dayOf(below.back()) != dayOf(date))) {
                below.push_back(date);
            }
        }
    }
    FanResponsePart& part = partOf(fan.habit, tenthOf(fan.target, maximum));
    const bool well = !fan.slow.raised && fan.habit.below.empty();
    if (well && share >= kLeastHabit && share <= kMostHabit && part.phases < kMostPhases) {
        ++part.phases;
        part.share = part.phases == 1 ? share : part.share + (share - part.share) / part.phases;
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

bool FanHealth::seemsStopped() const {
    return std::ranges::any_of(fans_,
                               [](const auto& entry) { return entry.second.stopped.raised; });
}

std::vector<HealthFinding> FanHealth::findings() const {
    std::vector<HealthFinding> list;
    for (const auto& [id, fan] : fans_) {
        const auto tell = [&, id = id](HealthKind kind, DiagnosticSeverity severity,
                                       DiagnosticConfidence confidence, const Count& count) {
            list.push_back({kind, severity, confidence, std::to_string(id),
                            "风扇 " + std::to_string(id + 1), count.since, count.expected,
                            count.measured});
        };
        using Severity = DiagnosticSeverity;
        using Confidence = DiagnosticConfidence;
        if (fan.stopped.raised) {
            // All at once: rather the reading than the fans, unless the heat says otherwise.
            const bool silent = fan.turning.value_or(fan.together);
            tell(silent ? HealthKind::tachometerSilent : HealthKind::fanStopped, Severity::warning,
                 fan.turning ? Confidence::confirmed : Confidence::possible, fan.stopped);
            continue;
        }
        if (fan.slow.raised) {
            tell(HealthKind::fanSlow, Severity::warning, Confidence::confirmed, fan.slow);
        } else if (fan.habit.below.size() >= kCeilingDays) {
            Count ceiling;
            ceiling.since = fan.habit.below.front();
            ceiling.expected = fan.habit.usual;
            ceiling.measured = fan.habit.reached;
            const bool worn = fan.habit.reached < kWornShare * fan.habit.usual;
            tell(HealthKind::fanCeiling, worn ? Severity::warning : Severity::information,
                 Confidence::confirmed, ceiling);
        }
        if (fan.unasked.raised && isKnownToFollow(fan.habit)) {
            tell(HealthKind::fanUnasked, Severity::warning, Confidence::possible, fan.unasked);
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
