// Whether a machine is hotter at like load than weeks ago.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "core/analysis/health_finding.h"
#include "core/analysis/observation_clock.h"
#include "core/fan/fan_curve.h"
#include "core/model/date.h"
#include "core/model/fan_target.h"
#include "core/model/json_fields.h"
#include "core/model/snapshot.h"

namespace ferovane {

// What a machine tells of its heat at one moment. What is not known, or not finite, is absent.
struct HeatSample {
    Date date;
    std::optional<double> die;    // degrees Celsius, as are the following
    std::optional<double> sink;   // the heat sink, or a probe beside the processor's package
    std::optional<double> room;   // at an intake
    std::optional<double> watts;  // of the processor or else of the whole machine
    std::optional<double> load;   // percent, of the processor
    std::optional<double> rpm;    // mean of the fans
    std::optional<double> flow;   // mean of their speeds as shares of their maxima; 0 without a fan
    std::optional<double> asked;  // the same of their targets, where these are known
    std::string sensors;          // the keys behind sink, room and watts
};

// The die is the hottest reading of what a curve with this sensor follows. May be called from any
// thread.
HeatSample heatSample(const Snapshot& snapshot, std::span<const FanTarget> targets,
                      CurveSensor die = CurveSensor::cpu);

// Kelvin per watt on one day: medians of its steady minutes under load. The second is what it would
// be at full fan speed; without a sink sensor it counts from the die, without a room sensor from
// kAssumedRoom.
struct HeatDay {
    int day = 0;           // as dayOf() counts
    double dieToSink = 0;  // 0 without a sink sensor
    double toAir = 0;
    double watts = 0;  // at like speed: how much 1 K/W means here

    bool operator==(const HeatDay&) const = default;
    static constexpr auto jsonFields() {
        using R = HeatDay;
        return std::tuple{jsonField("day", &R::day), jsonField("dieToSink", &R::dieToSink),
                          jsonField("toAir", &R::toAir), jsonField("watts", &R::watts)};
    }
};

// All that is remembered.
struct HeatTrendRecord {
    std::string sensors;              // as the samples told them
    std::vector<HeatDay> days;        // oldest first, at most HeatTrend::kMostDays
    std::optional<HeatDay> baseline;  // its medians, once it is complete; day: its last one
    int baselineFrom = 0;             // day
    Evidence toSink, toAir;           // K above the baseline; weekly checks in a row

    bool operator==(const HeatTrendRecord&) const = default;
    static constexpr auto jsonFields() {
        using R = HeatTrendRecord;
        return std::tuple{
            jsonField("sensors", &R::sensors),   jsonField("days", &R::days),
            jsonField("baseline", &R::baseline), jsonField("baselineFrom", &R::baselineFrom),
            jsonField("toSink", &R::toSink),     jsonField("toAir", &R::toAir)};
    }
};

// Compares the median of the last two weeks with a baseline of at least four, once a week; what
// holds on three checks is told. From die to sink and from sink to air apart. The baseline begins
// anew when other sensors are read, and by restart(). A plain value without a clock; one thread at
// a time; bounded memory.
class HeatTrend {
public:
    static constexpr int kBaselineDays = 28;
    static constexpr int kBaselineValid = 14;  // of them, or as many more days as it takes
    static constexpr int kWindowDays = 14;
    static constexpr int kWindowValid = 6;
    static constexpr int kCheckDays = 7;
    static constexpr int kChecks = 3;
    static constexpr int kMostDays = 120;
    static constexpr double kWindowSeconds = 120;      // in which heat shows that it is steady
    static constexpr std::size_t kMostSamples = 1200;  // in it: ten a second
    static constexpr double kLimitKelvin = 3;
    static constexpr double kLimitShare = 0.1;  // of what the way of the heat has in the baseline
    // Without a room sensor the seasons move all that counts from the air.
    static constexpr double kAssumedRoom = 25;
    static constexpr double kSeasonKelvin = 10;

    // With what record() gave.
    explicit HeatTrend(HeatTrendRecord saved = {}, double longestGapSeconds = kLongestGapSeconds)
        : record_(std::move(saved)), clock_(longestGapSeconds) {}

    // One sample. Which ones count is ObservationClock's to say.
    void add(const HeatSample& sample);

    // One whole day; add() does so at the end of each. Later days are forgotten: the clock was set
    // back.
    void addDay(const HeatDay& day);

    // The user cleaned the machine, or chose another fan curve for good.
    void restart();

    // Whether the fans turn as asked although they are not seen to, as the heat of the last steady
    // minutes tells: it fits one of the two and clearly not the other. Absent while it does not
    // tell, and without a day to compare with.
    std::optional<bool> turning() const { return turning_; }

    std::vector<HealthFinding> findings() const;
    const HeatTrendRecord& record() const { return record_; }

private:
    void finishWindow();
    void finishDay();
    void judgeFans(const HeatSample& means);
    void check();

    HeatTrendRecord record_;
    ObservationClock clock_;
    std::vector<HeatSample> window_;  // of kWindowSeconds
    std::vector<HeatDay> today_;      // from its steady windows, at most one in ten minutes
    std::optional<Date> lastKept_;
    std::optional<bool> turning_;
};

}  // namespace ferovane
