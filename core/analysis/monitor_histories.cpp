#include "core/analysis/monitor_histories.h"

#include <algorithm>
#include <optional>

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
    : metrics_(longestGapSeconds),
      load_(longestGapSeconds),
      sustained_(longestGapSeconds),
      turbo_(longestGapSeconds),
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

}  // namespace ferovane
