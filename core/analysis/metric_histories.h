// What a monitor draws: every metric and every sensor over the last minutes and hours.
#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/analysis/metric_series.h"
#include "core/analysis/system_telemetry.h"
#include "core/model/date.h"
#include "core/model/hardware_sensor.h"
#include "core/model/raw_enum.h"
#include "core/model/snapshot.h"

namespace ferovane {

enum class MetricKind {
    fan,
    temperature,
    power,
    voltage,
    current,
    percent,
    thermalState,   // as in a Snapshot, 0 to 3
    memoryPressure  // the kernel's level: 1, 2 or 4
};

// "RPM", "°C", "W", "V", "A" or "%"; empty for the two states.
std::string_view unit(MetricKind kind);

template <>
struct RawEnum<MetricKind> {
    static constexpr std::array<RawCase<MetricKind>, 8> cases{{
        {MetricKind::fan, "fan"},
        {MetricKind::temperature, "temperature"},
        {MetricKind::power, "power"},
        {MetricKind::voltage, "voltage"},
        {MetricKind::current, "current"},
        {MetricKind::percent, "percent"},
        {MetricKind::thermalState, "thermalState"},
        {MetricKind::memoryPressure, "memoryPressure"},
    }};
};

// What one sample says of one metric.
struct MetricReading {
    std::string id;  // a name below, "sensor:" and a key, or "fan:" and an index
    MetricKind kind = MetricKind::percent;
    std::string label;            // what a user reads
    std::optional<double> value;  // in the unit of the kind
};

// One metric, finely and coarsely.
class MetricHistory {
public:
    static constexpr double kMinutesBucketSeconds = 5;
    static constexpr double kMinutesSpanSeconds = 30 * 60;
    static constexpr double kHoursBucketSeconds = 5 * 60;
    static constexpr double kHoursSpanSeconds = 24 * 60 * 60;

    explicit MetricHistory(double gapSeconds)
        : minutes_(kMinutesBucketSeconds, kMinutesSpanSeconds, gapSeconds),
          hours_(kHoursBucketSeconds, kHoursSpanSeconds, gapSeconds) {}

    void append(Date date, std::optional<double> value) {
        minutes_.append(date, value);
        hours_.append(date, value);
    }

    bool restore(std::span<const MetricBucket> minutes, std::span<const MetricBucket> hours) {
        return minutes_.restore(minutes) && hours_.restore(hours);
    }

    const MetricSeries& minutes() const { return minutes_; }
    const MetricSeries& hours() const { return hours_; }

private:
    MetricSeries minutes_, hours_;
};

struct Metric {
    MetricKind kind = MetricKind::percent;
    std::string label;  // as last seen: a sensor that has vanished keeps its name
    MetricHistory history;
};

// Every metric that had a value within the last day. Takes at most 60 kB for a metric whose samples
// follow one another, and 0.5 MB for one of which each comes after a gap; beyond kMostMetrics no
// new one is taken up. One owner, no locking.
class MetricHistories {
public:
    static constexpr std::string_view kCpuUsage = "cpuUsage";
    static constexpr std::string_view kCpuTemperature = "cpuTemperature";
    static constexpr std::string_view kGpuTemperature = "gpuTemperature";
    static constexpr std::string_view kSpeedLimit = "speedLimit";
    static constexpr std::string_view kSchedulerLimit = "schedulerLimit";
    static constexpr std::string_view kThermalState = "thermalState";
    static constexpr std::string_view kMemoryPressure = "memoryPressure";
    static constexpr std::string_view kBatteryPercent = "batteryPercent";
    static constexpr std::string_view kBatteryWatts = "batteryWatts";
    static constexpr std::string_view kMemoryPercent = "memoryPercent";

    static std::string sensor(std::string_view key);
    static std::string fan(int id);

    // More than any controller has sensors, less than its key count could claim.
    static constexpr std::size_t kMostMetrics = 1024;

    // Samples further apart than that many seconds do not belong together.
    explicit MetricHistories(double gapSeconds = kLongestGapSeconds) : gapSeconds_(gapSeconds) {}

    // What a sample says of every metric, absent values included; each metric once.
    static std::vector<MetricReading> readings(const Snapshot& snapshot);
    static std::vector<MetricReading> readings(const SystemTelemetry& telemetry);

    void add(const Snapshot& snapshot);
    void add(const SystemTelemetry& telemetry);

    // Puts back what all() told of a metric. False, with nothing changed, for one that is known
    // already, for one too many, and for buckets that no series could have made.
    bool restore(std::string id, MetricKind kind, std::string label,
                 std::span<const MetricBucket> minutes, std::span<const MetricBucket> hours);

    // By id. References into it hold until the next add or restore.
    const std::map<std::string, Metric, std::less<>>& all() const { return metrics_; }

    // Null for a metric without a value in the last day; valid until the next add or
    // restore.
    const Metric* find(std::string_view id) const;

private:
    void add(Date date, std::span<const MetricReading> readings, bool telemetry);

    double gapSeconds_;
    std::map<std::string, Metric, std::less<>> metrics_;
};

}  // namespace ferovane
