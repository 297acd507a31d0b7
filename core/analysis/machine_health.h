// The health of one machine: its fans, its sensors and its cooling, from the samples of a monitor.
#pragma once

#include <span>
#include <tuple>
#include <utility>
#include <vector>

#include "core/analysis/fan_health.h"
#include "core/analysis/heat_trend.h"
#include "core/analysis/sensor_health.h"
#include "core/model/fan_target.h"
#include "core/model/json_fields.h"
#include "core/model/snapshot.h"

namespace ferovane {

// What was learned, for the next run.
struct HealthRecord {
    std::vector<FanHabit> fans;
    std::vector<SensorHabit> sensors;
    HeatTrendRecord trend;

    bool operator==(const HealthRecord&) const = default;
    static constexpr auto jsonFields() {
        using R = HealthRecord;
        return std::tuple{jsonField("fans", &R::fans), jsonField("sensors", &R::sensors),
                          jsonField("trend", &R::trend)};
    }
};

// A plain value without a clock; one thread at a time.
class MachineHealth {
public:
    // With what record() gave, whoever had it since: what cannot have been learned is forgotten.
    explicit MachineHealth(HealthRecord saved = {}, double longestGapSeconds = kLongestGapSeconds);

    // Once per sample, in the order of time. `targets`: what the fans' keys hold (SMC::target);
    // a fan without one is unreadable.
    void add(const Snapshot& snapshot, std::span<const FanTarget> targets);

    // The user cleaned or repaired the machine, or chose another fan curve for good.
    void cleaned();
    void curveChanged() { trend_.restart(); }

    // Fans, sensors, cooling.
    std::vector<HealthFinding> findings() const;

    const FanHealth& fans() const { return fans_; }
    const SensorHealth& sensors() const { return sensors_; }
    const HeatTrend& trend() const { return trend_; }
    HealthRecord record() const;

private:
    double gap_;
    FanHealth fans_;
    SensorHealth sensors_;
    HeatTrend trend_;
};

}  // namespace ferovane
