#include "core/analysis/machine_health.h"

#include <algorithm>
#include <cmath>
#include <iterator>

namespace ferovane {
namespace {

// What may stand in a record.
constexpr JsonRange kFigures{-1e6, 1e6};  // kelvin, watts, revolutions per minute, days
constexpr JsonRange kSums{0, 1e9};
constexpr JsonRange kShares{FanHealth::kLeastHabit, FanHealth::kMostHabit};
constexpr JsonRange kLonely{0, SensorHealth::kMostLonely};
constexpr double kRounding = 1.01;

bool isPossible(Date date) {
    return kFigures.admits(date.secondsSinceReference / kDaySeconds);
}

// Raised when `limit` is reached, and not counted further.
bool isPossible(const Evidence& evidence, double limit) {
    return JsonRange{0, limit}.admits(evidence.count) && isPossible(evidence.since) &&
           evidence.raised == (evidence.count >= limit) &&
           kFigures.admits(evidence.expected.value_or(0)) &&
           kFigures.admits(evidence.measured.value_or(0));
}

bool isPossible(const FanHabit& habit) {
    return habit.id >= 0 && habit.id < FanHealth::kMostFans && kShares.admits(habit.share) &&
           habit.phases >= 0 && habit.phases <= FanHealth::kMostPhases &&
           isPossible(habit.ceiling, FanHealth::kCeilingDays);
}

// The sums are those of some pairs.
bool isPossible(const SensorResponse& it) {
    constexpr double kLeastSquare = SensorResponse::kLeastMove * SensorResponse::kLeastMove;
    return kSums.admits(it.pairs) && kSums.admits(it.xx) && kSums.admits(it.yy) &&
           kSums.admits(std::abs(it.xy)) && it.xx * kRounding >= it.pairs * kLeastSquare &&
           it.xy * it.xy <= kRounding * it.xx * it.yy;
}

bool isPossible(const SensorHabit& habit) {
    return isPossible(habit.seen) && kSums.admits(habit.observed) && kSums.admits(habit.step) &&
           isPossible(habit.response) && kSums.admits(habit.calmest) &&
           kLonely.admits(habit.loneliest);
}

bool isPossible(const HeatDay& day) {
    return kFigures.admits(day.day) && kFigures.admits(day.dieToSink) &&
           kFigures.admits(day.toAir) && day.watts > 0 && kFigures.admits(day.watts);
}

bool isPossible(const HeatTrendRecord& record) {
    return record.days.size() <= HeatTrend::kMostDays &&
           std::ranges::is_sorted(record.days, {}, &HeatDay::day) &&
           std::ranges::all_of(record.days, [](auto& day) { return isPossible(day); }) &&
           (!record.baseline || isPossible(*record.baseline)) &&
           kFigures.admits(record.baselineFrom) && isPossible(record.toSink, HeatTrend::kChecks) &&
           isPossible(record.toAir, HeatTrend::kChecks);
}

// A record is a file that anybody may have written: what is not possible is dropped.
HealthRecord possible(HealthRecord saved) {
    const auto isImpossible = [](const auto& habit) { return !isPossible(habit); };
    std::erase_if(saved.fans, isImpossible);
    std::erase_if(saved.sensors, isImpossible);
    saved.sensors.resize(std::min(saved.sensors.size(), SensorHealth::kMostSensors));
    if (isImpossible(saved.trend)) {
        saved.trend = {};
    }
    return saved;
}

}  // namespace

MachineHealth::MachineHealth(HealthRecord saved, double longestGapSeconds)
    : gap_(longestGapSeconds) {
    saved = possible(std::move(saved));
    fans_ = FanHealth(saved.fans, gap_);
    sensors_ = SensorHealth(saved.sensors, gap_);
    trend_ = HeatTrend(std::move(saved.trend), gap_);
}

void MachineHealth::add(const Snapshot& snapshot, std::span<const FanTarget> targets) {
    fans_.add(snapshot, targets);
    sensors_.add(snapshot);
    trend_.add(heatSample(snapshot, targets));
    fans_.noteTurning(trend_.turning());
}

void MachineHealth::cleaned() {
    fans_ = FanHealth({}, gap_);
    trend_.restart();
}

std::vector<HealthFinding> MachineHealth::findings() const {
    std::vector<HealthFinding> list = fans_.findings();
    std::ranges::move(sensors_.findings(), std::back_inserter(list));
    std::ranges::move(trend_.findings(), std::back_inserter(list));
    return list;
}

HealthRecord MachineHealth::record() const {
    return {fans_.habits(), sensors_.habits(), trend_.record()};
}

}  // namespace ferovane
