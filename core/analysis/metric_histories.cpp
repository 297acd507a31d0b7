#include "core/analysis/metric_histories.h"

#include <cmath>

namespace ferovane {
namespace {

// How often metrics that have ended are looked for.
constexpr double kSweepSeconds = 60 * 60;

}  // namespace

std::string MetricHistories::sensor(std::string_view key) {
    return std::string("sensor:").append(key);
}

std::string MetricHistories::fan(int id) {
    return "fan:" + std::to_string(id);
}

void MetricHistories::add(const Snapshot& snapshot) {
    const Date date = snapshot.date;
    append(kCpuUsage, date, snapshot.cpuUsage);
    append(kCpuTemperature, date, snapshot.cpuTemperature());
    append(kGpuTemperature, date, snapshot.temperature(SensorCategory::gpu));
    append(kSpeedLimit, date, snapshot.speedLimit);
    for (const SensorReading& reading : snapshot.sensors) {
        append(sensor(reading.key), date, reading.celsius);
    }
    for (const FanReading& reading : snapshot.fans) {
        append(fan(reading.id), date, reading.rpm);
    }
    if (snapshot.additionalSensors) {
        for (const HardwareSensorReading& reading : *snapshot.additionalSensors) {
            append(sensor(reading.key), date, reading.value);
        }
    }
    if (!lastSweep_ || !(std::abs(date - *lastSweep_) < kSweepSeconds)) {
        forgetBefore(date - MetricHistory::kHoursSpanSeconds);
        lastSweep_ = date;
    }
}

void MetricHistories::add(const SystemTelemetry& telemetry) {
    append(kBatteryPercent, telemetry.date, telemetry.batteryPercent);
    append(kBatteryWatts, telemetry.date, telemetry.batteryWatts);
    append(kMemoryPercent, telemetry.date, telemetry.memoryPercent());
}

const MetricHistory* MetricHistories::find(std::string_view metric) const {
    const auto found = histories_.find(metric);
    return found == histories_.end() ? nullptr : &found->second;
}

void MetricHistories::append(std::string_view metric, Date date, std::optional<double> value) {
    auto found = histories_.find(metric);
    if (found == histories_.end()) {
        if (!value || !std::isfinite(*value) || histories_.size() >= kMostMetrics) {
            return;
        }
        found = histories_.try_emplace(std::string(metric)).first;
    }
    found->second.append(date, value);
}

void MetricHistories::forgetBefore(Date earliest) {
    std::erase_if(histories_, [&](const auto& entry) {
        const auto buckets = entry.second.hours().buckets();
        return buckets.empty() || buckets.back().last < earliest;
    });
}

}  // namespace ferovane
