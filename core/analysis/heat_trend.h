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
#include "core/model/date.h"
#include "core/model/fan_target.h"
#include "core/model/json_fields.h"
#include "core/model/snapshot.h"

namespace ferovane {

// What the trend is made from, at one moment. Degrees Celsius; what is not known is absent.
struct HeatSample {
    Date date;
    std::optional<double> die, sink, room;
    std::optional<double> watts;
    double flow = 0;      // mean speed of the fans as a share of their maximum; 0 without a fan
    double asked = 0;     // the same of their targets, where these are known
    std::string sensors;  // the keys behind die, sink, room and watts
};

// Die: the hottest reading of the processor. Sink: the sensor beside the processor's package or on
// a heat pipe. Room: an intake sensor. Watts: of the processor or else of the whole machine.
HeatSample heatSample(const Snapshot& snapshot, std::span<const FanTarget> targets);

// Kelvin per watt on one day: medians of its steady minutes under load. The second is what it would
// be at full fan speed; without a sink sensor it counts from the die, without a room sensor from
// kAssumedRoom.
struct HeatDay {
    int day = 0;  // since the reference date, UTC
    std::optional<double> dieToSink;
    double toAir = 0;
    double watts = 0;  // at like speed: how much 1 K/W means here

    bool operator==(const HeatDay&) const = default;
    static constexpr auto jsonFields() {
        using R = HeatDay;
        return std::tuple{jsonField("day", &R::day), jsonField("dieToSink", &R::dieToSink),
                          jsonField("toAir", &R::toAir), jsonField("watts", &R::watts)};
    }
};

// One of the two ways of the heat, at the weekly checks.
struct HeatShift {
    double kelvin = 0;  // above the baseline, at the last check
    int checks = 0;     // in a row that were above the limit
    Date since;         // the first of them

    bool operator==(const HeatShift&) const = default;
    static constexpr auto jsonFields() {
        using R = HeatShift;
        return std::tuple{jsonField("kelvin", &R::kelvin), jsonField("checks", &R::checks),
                          jsonField("since", &R::since)};
    }
};

// All that is remembered.
struct HeatTrendRecord {
    std::string sensors;              // as the samples told them
    std::vector<HeatDay> days;        // oldest first, at most HeatTrend::kMostDays
    std::optional<HeatDay> baseline;  // its medians, once it is complete; day: its last one
    int baselineFrom = 0;             // day
    int nextCheck = 0;                // day
    HeatShift toSink, toAir;

    bool operator==(const HeatTrendRecord&) const = default;
    static constexpr auto jsonFields() {
        using R = HeatTrendRecord;
        return std::tuple{
            jsonField("sensors", &R::sensors),     jsonField("days", &R::days),
            jsonField("baseline", &R::baseline),   jsonField("baselineFrom", &R::baselineFrom),
            jsonField("nextCheck", &R::nextCheck), jsonField("toSink", &R::toSink),
            jsonField("toAir", &R::toAir)};
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
    static constexpr std::size_t kMostSamples = 600;  // in a minute: ten a second
    static constexpr double kLimitKelvin = 3;
    static constexpr double kLimitShare = 0.1;  // of what the way of the heat has in the baseline
    // Without a room sensor the seasons move all that counts from the air.
    static constexpr double kAssumedRoom = 25;
    static constexpr double kSeasonKelvin = 10;

    HeatTrend() = default;
    explicit HeatTrend(HeatTrendRecord saved) : record_(std::move(saved)) {}

    // One sample, at any pace of up to one in 15 s.
    void add(const HeatSample& sample);

    // One whole day; add() does so at the end of each. Later days are forgotten: the clock was set
    // back.
    void addDay(const HeatDay& day);

    // The user cleaned the machine, or chose another fan curve for good.
    void restart();

    // Whether the fans turn as asked although they are not seen to, as the heat of the last steady
    // minute tells: it fits one of the two and clearly not the other. Absent while it does not
    // tell, and without a day to compare with.
    std::optional<bool> turning() const { return turning_; }

    std::vector<HealthFinding> findings() const;
    const HeatTrendRecord& record() const { return record_; }

private:
    struct Minute {  // means
        double die = 0, sink = 0, room = 0, watts = 0, flow = 0, asked = 0;
    };

    void finishMinute();
    void finishDay();
    void judgeFans(const Minute& minute, double toAir);
    void check();

    HeatTrendRecord record_;
    std::optional<Date> last_;
    std::vector<HeatSample> minute_;  // what has passed of it
    std::optional<Minute> before_;    // the minute before, when it was even
    std::vector<HeatDay> minutes_;    // steady ones of today, at most one in ten minutes
    std::optional<Date> lastKept_;
    std::optional<bool> turning_;
};

}  // namespace ferovane
