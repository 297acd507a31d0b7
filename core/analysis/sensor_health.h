// Whether temperature sensors measure.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "core/analysis/health_finding.h"
#include "core/analysis/observation_clock.h"
#include "core/model/date.h"
#include "core/model/json_fields.h"
#include "core/model/snapshot.h"

namespace ferovane {

enum class SensorState {
    live,     // or nothing speaks against it
    suspect,  // just jumped while no other sensor did
    frozen,   // the same to the last bit, while the others moved as it used to follow
    offset,   // moved by itself, and stayed there
    parked,   // at the end of its range, where nothing answers: legal, and no temperature
    gone      // not among the readings any more
};

// How a sensor moves from minute to minute (y) when all others move by so much on average (x):
// sums, in kelvin.
struct SensorResponse {
    static constexpr double kLeastMove = 0.2;  // of the others: less teaches nothing

    double pairs = 0, xx = 0, xy = 0, yy = 0;

    void learn(double x, double y);
    // By how much it moves when the others move by `x`, in kelvin without a sign; 0 where that is
    // not known, or not more than noise.
    double to(double x) const;

    bool operator==(const SensorResponse&) const = default;
    static constexpr auto jsonFields() {
        using R = SensorResponse;
        return std::tuple{jsonField("pairs", &R::pairs), jsonField("xx", &R::xx),
                          jsonField("xy", &R::xy), jsonField("yy", &R::yy)};
    }
};

// What was learned about one sensor. Kelvin and seconds.
struct SensorHabit {
    std::string key, label;
    Date seen;            // last
    double observed = 0;  // for how long
    double step = 0;      // smallest change seen; 0: none
    SensorResponse response;
    double calmest = 0;  // by how much the others moved in a minute while it naturally stood still
    double loneliest = 0;  // by how much it has naturally moved alone

    bool operator==(const SensorHabit&) const = default;
    static constexpr auto jsonFields() {
        using R = SensorHabit;
        return std::tuple{jsonField("key", &R::key),         jsonField("label", &R::label),
                          jsonField("seen", &R::seen),       jsonField("observed", &R::observed),
                          jsonField("step", &R::step),       jsonField("response", &R::response),
                          jsonField("calmest", &R::calmest), jsonField("loneliest", &R::loneliest)};
    }
};

// The hottest reading of a category, as far as its sensors can be relied on.
struct JudgedTemperature {
    std::optional<double> celsius;
    bool certain = true;  // false: it is from a sensor that is not well, and hot

    bool operator==(const JudgedTemperature&) const = default;
};

// Judges each sensor by its own habits and by what the others do at the same time, after
// kLearningSeconds of observation; without a habit of following the others there is no verdict
// rather than a good one. Sensors that stop or vanish together are switched off, not broken.
//
// A plain value without a clock; one thread at a time. What happened during a pause says nothing.
// Constant memory per sensor, at most kMostSensors; one that was not seen for kForgottenSeconds is
// forgotten.
class SensorHealth {
public:
    static constexpr double kLearningSeconds = 6 * 3600;
    static constexpr double kFrozenSeconds = 60;
    static constexpr int kFrozenSamples = 20;
    static constexpr double kGoneSeconds = 300;
    static constexpr double kShownSeconds = kDaySeconds;  // of a spike or an offset
    static constexpr double kForgottenSeconds = 30 * kDaySeconds;
    static constexpr double kHotCelsius = 80;
    static constexpr double kMostLonely = 40;  // K; moving farther alone is never a habit
    static constexpr std::size_t kMostSensors = 1024;

    // With what habits() gave.
    explicit SensorHealth(const std::vector<SensorHabit>& saved = {},
                          double longestGapSeconds = kLongestGapSeconds);

    // A snapshot without any temperature tells of the reader and not of sensors: it does not count.
    // Which others count is ObservationClock's to say.
    void add(const Snapshot& snapshot);

    SensorState state(std::string_view key) const;  // live for one that was never seen

    // Of the readings in this snapshot. A sensor that is not well is unknown, never cool: it
    // vouches for no temperature, so that there may be none. But one that reads hotter than the
    // others is not hidden unless it is parked: it decides and makes the result uncertain. When no
    // other is left it does so from kHotCelsius on.
    JudgedTemperature hottest(const Snapshot& snapshot, SensorCategory category) const;

    // Spikes are told once, as information; parked is a state and no finding.
    std::vector<HealthFinding> findings() const;

    std::vector<SensorHabit> habits() const;

private:
    struct Minute {
        double seconds = 0;
        int samples = 0;
        double from = 0;    // the sensor's value when it began
        double others = 0;  // how far they have moved, and in between
        double lowest = 0, highest = 0;
    };
    struct Sensor {
        SensorHabit habit;
        SensorState state = SensorState::live;
        int samples = 0;               // without a pause; 0 while it is absent
        double value = 0, change = 0;  // now, and since the sample before
        // The run of equal values: since when, and the farthest that the others have moved within a
        // minute of it; a slow drift of the others is no reason to move.
        Date stillSince;
        int stillSamples = 0;
        double stood = 0;
        bool rested = false;  // a long run ended just now, in which it could have moved
        Minute minute;
        double absent = 0;              // seconds
        std::optional<Evidence> jump;   // while suspect or offset; samples since
        std::optional<Evidence> spike;  // the last one

        bool moved() const { return samples > 1; }  // `change` is known
    };

    void take(const Snapshot& snapshot, bool continues);
    void follow(Sensor& sensor, double others, Date date, double passed);
    static void followRun(Sensor& sensor, Date date);
    static void followMinute(Sensor& sensor, double others, double passed);
    void followJump(Sensor& sensor, Date date, double passed);
    void beginJump(Sensor& sensor, Date date, double passed);
    SensorState judge(const Sensor& sensor) const;
    bool movesAlone(const Sensor& sensor) const;
    bool hasCompany(const Sensor& sensor) const;
    static bool standsStill(const Sensor& sensor);

    std::map<std::string, Sensor, std::less<>> sensors_;
    ObservationClock clock_;
};

}  // namespace ferovane
