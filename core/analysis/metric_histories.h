// What a monitor draws: every metric and every sensor over the last minutes and hours.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "core/analysis/metric_series.h"
#include "core/analysis/system_telemetry.h"
#include "core/model/date.h"
#include "core/model/snapshot.h"

namespace ferovane {

// One metric, finely and coarsely.
class MetricHistory {
public:
    static constexpr double kMinutesBucketSeconds = 5;
    static constexpr double kMinutesSpanSeconds = 30 * 60;
    static constexpr double kHoursBucketSeconds = 5 * 60;
    static constexpr double kHoursSpanSeconds = 24 * 60 * 60;

    void append(Date date, std::optional<double> value) {
        minutes_.append(date, value);
        hours_.append(date, value);
    }

    const MetricSeries& minutes() const { return minutes_; }
    const MetricSeries& hours() const { return hours_; }

private:
    MetricSeries minutes_{kMinutesBucketSeconds, kMinutesSpanSeconds};
    MetricSeries hours_{kHoursBucketSeconds, kHoursSpanSeconds};
};

// By name: the metrics below, "sensor:" and a key for each sensor, "fan:" and an index for each
// fan's speed. Bounded: a sensor without a value for a day is forgotten, and beyond kMostMetrics no
// new one is taken up.
class MetricHistories {
public:
    static constexpr std::string_view kCpuUsage = "cpuUsage";              // percent
    static constexpr std::string_view kCpuTemperature = "cpuTemperature";  // degrees Celsius
    static constexpr std::string_view kGpuTemperature = "gpuTemperature";
    static constexpr std::string_view kSpeedLimit = "speedLimit";  // percent
    static constexpr std::string_view kBatteryPercent = "batteryPercent";
    static constexpr std::string_view kBatteryWatts = "batteryWatts";
    static constexpr std::string_view kMemoryPercent = "memoryPercent";

    static std::string sensor(std::string_view key);
    static std::string fan(int id);

    // More than any controller has sensors, less than its key count could claim.
    static constexpr std::size_t kMostMetrics = 4096;

    void add(const Snapshot& snapshot);
    void add(const SystemTelemetry& telemetry);

    // Null for a metric that never had a value; valid until the next add.
    const MetricHistory* find(std::string_view metric) const;

    const std::map<std::string, MetricHistory, std::less<>>& all() const { return histories_; }

private:
    void append(std::string_view metric, Date date, std::optional<double> value);
    void forgetBefore(Date earliest);

    std::map<std::string, MetricHistory, std::less<>> histories_;
    std::optional<Date> lastSweep_;
};

}  // namespace ferovane
