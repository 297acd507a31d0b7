#include "core/analysis/monitor_histories.h"

#include <algorithm>
#include <cmath>

namespace ferovane {
namespace {

std::optional<double> fastestOf(const Snapshot& snapshot) {
    std::optional<double> rpm;
    for (const FanReading& fan : snapshot.fans) {
        rpm = std::max(rpm, fan.rpm);
    }
    return rpm;
}

}  // namespace

MonitorHistories::MonitorHistories(double longestGapSeconds)
    : gap_(longestGapSeconds),
      metrics_(longestGapSeconds),
      load_(longestGapSeconds),
      sustained_(longestGapSeconds),
      turbo_(longestGapSeconds),
      assessment_(longestGapSeconds),
      processes_(longestGapSeconds),
      health_({}, longestGapSeconds),
      recorder_(longestGapSeconds) {}

void MonitorHistories::add(const Snapshot& snapshot, std::span<const FanTarget> targets) {
    metrics_.add(snapshot);
    load_.append(snapshot.date, snapshot.cpuUsage);
    sustained_.append(snapshot.date, snapshot.cpuUsage);
    turbo_.append(snapshot);
    assessment_.append({snapshot.date, snapshot.cpuUsage, snapshot.cpuTemperature(),
                        fastestOf(snapshot), heatSample(snapshot, targets).watts});
    health_.add(snapshot, targets);
    recorder_.add(snapshot, targets);
}

void MonitorHistories::add(Date date, std::span<const ProcessSample> processes) {
    processes_.add(date, processes);
}

void MonitorHistories::add(const SystemTelemetry& telemetry) {
    metrics_.add(telemetry);
    recorder_.add(telemetry);
}

SavedDay MonitorHistories::state() const {
    SavedDay day{{},
                 load_.state(),
                 sustained_.state(),
                 turbo_.state(),
                 assessment_.state(),
                 health_.record(),
                 recorder_.state()};
    for (const auto& [id, metric] : metrics_.all()) {
        const auto minutes = metric.history.minutes().buckets();
        const auto hours = metric.history.hours().buckets();
        day.metrics[id] = {metric.label,
                           metric.kind,
                           {minutes.begin(), minutes.end()},
                           {hours.begin(), hours.end()}};
    }
    return day;
}

bool MonitorHistories::restore(SavedDay day) {
    MonitorHistories restored(gap_);
    for (const auto& [id, metric] : day.metrics) {
        if (!restored.metrics_.restore(id, metric.kind, metric.label, metric.minutes,
                                       metric.hours)) {
            return false;
        }
    }
    if (!restored.load_.restore(day.load) || !restored.sustained_.restore(day.sustained) ||
        !restored.turbo_.restore(day.turbo) || !restored.assessment_.restore(day.assessment) ||
        !restored.recorder_.restore(std::move(day.recorder))) {
        return false;
    }
    restored.health_ = MachineHealth(std::move(day.health), gap_);
    *this = std::move(restored);
    return true;
}

}  // namespace ferovane
