// Whether temperature sensors measure.
#pragma once

#include <array>
#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "core/analysis/health_finding.h"
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

// What was learned about one sensor. Kelvin and seconds.
struct SensorHabit {
    std::string key, label;
    double observed = 0;  // for how long
    double step = 0;      // smallest change seen; 0: none
    // Its changes (y) from minute to minute beside those of all others on average (x).
    double pairs = 0, xx = 0, xy = 0, yy = 0;
    double longestAbsence = 0;  // after which it came back
    double calmest = 0;  // by how much the others moved in a minute while it naturally stood still
    double loneliest = 0;  // by how much it has naturally moved alone

    bool operator==(const SensorHabit&) const = default;
    static constexpr auto jsonFields() {
        using R = SensorHabit;
        return std::tuple{jsonField("key", &R::key),
                          jsonField("label", &R::label),
                          jsonField("observed", &R::observed),
                          jsonField("step", &R::step),
                          jsonField("pairs", &R::pairs),
                          jsonField("xx", &R::xx),
                          jsonField("xy", &R::xy),
                          jsonField("yy", &R::yy),
                          jsonField("longestAbsence", &R::longestAbsence),
                          jsonField("calmest", &R::calmest),
                          jsonField("loneliest", &R::loneliest)};
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
// A plain value without a clock; one thread at a time. Any pace of sampling up to one in 15 s; what
// happened during a longer pause says nothing. Constant memory per sensor, at most kMostSensors.
class SensorHealth {
public:
    static constexpr double kLearningSeconds = 6 * 3600;
    static constexpr double kFrozenSeconds = 60;
    static constexpr int kFrozenSamples = 20;
    static constexpr int kParkedSamples = 10;
    static constexpr int kReadmittedSamples = 5;
    static constexpr double kGoneSeconds = 300;
    static constexpr double kShownSeconds = 24 * 3600;  // of a spike or an offset
    static constexpr double kHotCelsius = 80;
    static constexpr std::size_t kMostSensors = 1024;

    SensorHealth() = default;
    explicit SensorHealth(const std::vector<SensorHabit>& saved);

    // A snapshot without any temperature tells of the reader and not of sensors: it does not count,
    // and neither does a second one of the same moment or one without a finite date. A clock that
    // was set back is a pause.
    void add(const Snapshot& snapshot);

    SensorState state(std::string_view key) const;  // live for one that was never seen

    // Of the readings in this snapshot. A sensor that is not well is unknown, never cool: it
    // vouches for no temperature, so that there may be none. But a frozen or shifted one that reads
    // hotter than the others is not hidden: it decides and makes the result uncertain. When no
    // other is left it does so from kHotCelsius on.
    JudgedTemperature hottest(const Snapshot& snapshot, SensorCategory category) const;

    // Spikes are told once, as information; parked is a state and no finding.
    std::vector<HealthFinding> findings() const;

    std::vector<SensorHabit> habits() const;

private:
    struct Jump {
        Date since;
        double from = 0, to = 0;
        int samples = 0;
        bool fromRest = false;  // it had stood still while others moved: it may have been stuck
    };
    struct Sensor {
        SensorHabit habit;
        SensorState state = SensorState::live;
        std::array<double, 5> recent{};  // the last values, newest at `newest`
        std::size_t newest = 0, known = 0;
        bool present = false;
        bool counted = false;          // its change says what the machine does
        double value = 0, change = 0;  // now, and since the sample before
        double path = 0;               // how far the others have moved on average
        // The run of equal values: since when, how long, and the longest way that the path went
        // within a minute of it; a slow drift of the others is no reason to move.
        Date flatSince;
        int flatSamples = 0;
        double missed = 0;  // the same of the run before, when that was long
        double lowest = 0, highest = 0, moved = 0;
        int liveSamples = 0;  // since it was parked
        double absent = 0;    // seconds
        Date absentSince;
        std::optional<Jump> jump;   // while suspect or offset
        std::optional<Jump> spike;  // the last one
        double blockSeconds = 0, blockValue = 0, blockPath = 0;
    };
    struct Moves;  // what all sensors did from one sample to the next

    Moves take(const Snapshot& snapshot, bool continues);
    void judge(Sensor& sensor, const Moves& moves, Date date, double passed);
    void followRun(Sensor& sensor, double others, Date date);
    void learn(Sensor& sensor, double passed);
    void followJump(Sensor& sensor, const Moves& moves, Date date, double passed);
    void followAbsence(Sensor& sensor, Date date, double passed);
    static bool isParked(const Sensor& sensor);
    static bool standsStill(const Sensor& sensor, Date date);
    template <class Does>
    bool hasCompany(const Sensor& sensor, Date Sensor::*since, Does does) const;

    std::map<std::string, Sensor, std::less<>> sensors_;
    std::optional<Date> last_;
};

}  // namespace ferovane
