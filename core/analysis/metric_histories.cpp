#include "core/analysis/metric_histories.h"

#include <algorithm>
#include <array>
#include <utility>

#include "core/analysis/numbers.h"
#include "core/analysis/sensor_catalog.h"

namespace ferovane {
namespace {

constexpr int kKnownThermalStates = 4;  // from 0

// The others come with every Snapshot.
constexpr std::array kTelemetryMetrics{MetricHistories::kBatteryPercent,
                                       MetricHistories::kBatteryWatts,
                                       MetricHistories::kMemoryPercent};

// Every kind of sensor is a kind of metric, by the same name.
MetricKind kindOf(HardwareSensorKind kind) {
    return *fromRawValue<MetricKind>(rawValue(kind));
}

// The metric of the fan whose speed a further sensor repeats: "F0Ac" is that of fan 0.
std::optional<std::string> fanOf(const HardwareSensorReading& reading) {
    const bool known = reading.kind == HardwareSensorKind::fan && reading.key.size() > 1 &&
                       reading.key[1] >= '0' && reading.key[1] <= '9';
    return known ? std::optional(MetricHistories::fan(reading.key[1] - '0')) : std::nullopt;
}

std::string temperatureTitle(SensorComponent component) {
    return std::string(SensorCatalog::temperatureTitle(component));
}

}  // namespace

std::string_view unit(MetricKind kind) {
    if (kind == MetricKind::percent) {
        return "%";
    }
    const auto sensor = fromRawValue<HardwareSensorKind>(rawValue(kind));
    return sensor ? unit(*sensor) : std::string_view();
}

std::string MetricHistories::sensor(std::string_view key) {
    return std::string("sensor:").append(key);
}

std::string MetricHistories::fan(int id) {
    return "fan:" + std::to_string(id);
}

std::vector<MetricReading> MetricHistories::readings(const Snapshot& snapshot) {
    using enum MetricKind;
    std::vector<MetricReading> readings;
    const auto add = [&](std::string_view id, MetricKind kind, std::string label,
                         std::optional<double> value) {
        readings.push_back({std::string(id), kind, std::move(label), value});
    };
    add(kCpuUsage, percent, "处理器使用率", snapshot.cpuUsage);
    add(kCpuTemperature, temperature, temperatureTitle(SensorComponent::cpu),
        snapshot.cpuTemperature());
    add(kGpuTemperature, temperature, temperatureTitle(SensorComponent::gpu),
        snapshot.temperature(SensorCategory::gpu));
    add(kSpeedLimit, percent, "处理器速度上限", snapshot.speedLimit);
    add(kSchedulerLimit, percent, "处理器调度上限", snapshot.schedulerLimit);
    const bool known = snapshot.thermalState >= 0 && snapshot.thermalState < kKnownThermalStates;
    add(kThermalState, thermalState, "热状态",
        known ? std::optional<double>(snapshot.thermalState) : std::nullopt);
    add(kMemoryPressure, memoryPressure, "内存压力",
        snapshot.memoryPressure ? std::optional<double>(rawValue(*snapshot.memoryPressure))
                                : std::nullopt);
    for (const SensorReading& reading : snapshot.sensors) {
        add(sensor(reading.key), temperature, reading.label, reading.celsius);
    }
    for (const FanReading& reading : snapshot.fans) {
        // Users count fans from 1.
        add(MetricHistories::fan(reading.id), fan,
            std::string(title(SensorComponent::fan)) + " " + std::to_string(reading.id + 1),
            reading.rpm);
    }
    if (snapshot.additionalSensors) {
        for (const HardwareSensorReading& reading : *snapshot.additionalSensors) {
            const auto id = fanOf(reading);
            const auto same =
                id ? std::ranges::find(readings, *id, &MetricReading::id) : readings.end();
            if (same == readings.end()) {
                add(id.value_or(sensor(reading.key)), kindOf(reading.kind), reading.label,
                    reading.value);
            } else if (!same->value) {
                same->value = reading.value;
            }
        }
    }
    return readings;
}

std::vector<MetricReading> MetricHistories::readings(const SystemTelemetry& telemetry) {
    using enum MetricKind;
    return {{std::string(kBatteryPercent), percent, "电池电量", telemetry.batteryPercent},
            {std::string(kBatteryWatts), power, "电池功率", telemetry.batteryWatts},
            {std::string(kMemoryPercent), percent, "内存使用率", telemetry.memoryPercent()}};
}

void MetricHistories::add(const Snapshot& snapshot) {
    add(snapshot.date, readings(snapshot), false);
}

void MetricHistories::add(const SystemTelemetry& telemetry) {
    add(telemetry.date, readings(telemetry), true);
}

void MetricHistories::add(Date date, std::span<const MetricReading> readings, bool telemetry) {
    for (const auto& [id, kind, label, value] : readings) {
        auto known = metrics_.find(id);
        if (!ifFinite(value) || (known == metrics_.end() && metrics_.size() >= kMostMetrics)) {
            continue;
        }
        if (known == metrics_.end()) {
            known = metrics_.emplace(id, Metric{kind, label, MetricHistory(gapSeconds_)}).first;
        }
        Metric& metric = known->second;
        metric.kind = kind;
        metric.label = label;
        metric.history.append(date, value);
    }
    // A second sample of one moment changes nothing, so this tells of those alone that had no
    // value.
    for (auto& [id, metric] : metrics_) {
        if ((std::ranges::find(kTelemetryMetrics, id) != kTelemetryMetrics.end()) == telemetry) {
            metric.history.append(date, std::nullopt);
        }
    }
    std::erase_if(metrics_,
                  [](const auto& entry) { return entry.second.history.hours().buckets().empty(); });
}

bool MetricHistories::restore(std::string id, MetricKind kind, std::string label,
                              std::span<const MetricBucket> minutes,
                              std::span<const MetricBucket> hours) {
    Metric metric{kind, std::move(label), MetricHistory(gapSeconds_)};
    return metrics_.size() < kMostMetrics && metric.history.restore(minutes, hours) &&
           metrics_.try_emplace(std::move(id), std::move(metric)).second;
}

const Metric* MetricHistories::find(std::string_view id) const {
    const auto found = metrics_.find(id);
    return found == metrics_.end() ? nullptr : &found->second;
}

}  // namespace ferovane
