// When the turbo-limiting driver was loaded, and what load and heat were like around it.
#pragma once

#include <cstddef>
#include <deque>
#include <optional>

#include "core/model/date.h"
#include "core/model/snapshot.h"

namespace ferovane {

// Mean and highest of the values that were there; absent without any.
struct TurboMeasure {
    double mean = 0, highest = 0;
    int samples = 0;

    bool operator==(const TurboMeasure&) const = default;
};

// An uninterrupted stretch with the driver loaded, or not loaded.
struct TurboPeriod {
    TurboState state = TurboState::unknown;
    Date from, to;
    std::optional<TurboMeasure> load;         // percent
    std::optional<TurboMeasure> temperature;  // of the processor, degrees Celsius

    bool operator==(const TurboPeriod&) const = default;
};

// The driver was seen to be loaded or unloaded, between two samples that follow one another.
struct TurboChange {
    Date date;                               // of the first sample in the new state
    TurboState state = TurboState::unknown;  // the new one
    // Over the samples of up to a minute on either side, less where the observation is shorter or
    // another change lies within; the minute after it may not have passed yet.
    std::optional<TurboMeasure> loadBefore, loadAfter;
    std::optional<TurboMeasure> temperatureBefore, temperatureAfter;

    bool operator==(const TurboChange&) const = default;
};

// Bounded by the constants below; appending takes constant time on average. A state that cannot be
// read, and a gap of more than 15 s, end a period, and the next one is no change.
class TurboHistory {
public:
    static constexpr double kAroundSeconds = 60;
    static constexpr std::size_t kMostPeriods = 200;
    static constexpr std::size_t kMostChanges = 100;
    static constexpr std::size_t kMostRecent = 600;  // samples before a change: ten a second

    void append(Date date, TurboState state, std::optional<double> load,
                std::optional<double> temperature);
    void append(const Snapshot& snapshot) {
        append(snapshot.date, snapshot.turbo, snapshot.cpuUsage, snapshot.cpuTemperature());
    }

    const std::deque<TurboPeriod>& periods() const { return periods_; }  // oldest first
    const std::deque<TurboChange>& changes() const { return changes_; }  // oldest first

private:
    struct Sample {
        Date date;
        std::optional<double> load, temperature;
    };

    void change(Date date, TurboState state);
    void record(const Sample& sample);

    std::deque<TurboPeriod> periods_;
    std::deque<TurboChange> changes_;
    std::deque<Sample> recent_;   // of the current period, up to kAroundSeconds back
    std::optional<Date> last_;    // of the last sample with a state
    bool followsChange_ = false;  // the current period began with the last change
};

}  // namespace ferovane
