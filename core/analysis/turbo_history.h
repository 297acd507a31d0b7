// When the turbo-limiting driver was loaded, and what load and heat were like around it.
#pragma once

#include <cstddef>
#include <deque>
#include <optional>
#include <tuple>

#include "core/analysis/observation_clock.h"
#include "core/model/date.h"
#include "core/model/json_fields.h"
#include "core/model/snapshot.h"

namespace ferovane {

// Mean and highest of the values that were there; absent without any.
struct TurboMeasure {
    double mean = 0, highest = 0;
    int samples = 0;

    bool operator==(const TurboMeasure&) const = default;
    static constexpr auto jsonFields() {
        return std::tuple{jsonField("mean", &TurboMeasure::mean),
                          jsonField("highest", &TurboMeasure::highest),
                          jsonField("samples", &TurboMeasure::samples)};
    }
};

// An uninterrupted stretch with the driver loaded, or not loaded.
struct TurboPeriod {
    TurboState state = TurboState::unknown;
    Date from, to;
    std::optional<TurboMeasure> load;         // percent
    std::optional<TurboMeasure> temperature;  // of the processor, degrees Celsius

    bool operator==(const TurboPeriod&) const = default;
    static constexpr auto jsonFields() {
        using R = TurboPeriod;
        return std::tuple{jsonField("state", &R::state), jsonField("from", &R::from),
                          jsonField("to", &R::to), jsonField("load", &R::load),
                          jsonField("temperature", &R::temperature)};
    }
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
    static constexpr auto jsonFields() {
        using R = TurboChange;
        return std::tuple{jsonField("date", &R::date),
                          jsonField("state", &R::state),
                          jsonField("loadBefore", &R::loadBefore),
                          jsonField("loadAfter", &R::loadAfter),
                          jsonField("temperatureBefore", &R::temperatureBefore),
                          jsonField("temperatureAfter", &R::temperatureAfter)};
    }
};

// Bounded by the constants below; appending takes constant time on average. A state that cannot be
// read, and a gap, end a period, and the next one is no change. A clock that was set back takes
// with it what is dated later; a period that reaches past the sample ends there. One owner, no
// locking.
class TurboHistory {
public:
    static constexpr double kAroundSeconds = 60;
    static constexpr std::size_t kMostPeriods = 200;
    static constexpr std::size_t kMostChanges = 100;
    static constexpr std::size_t kMostRecent = 600;  // samples before a change: ten a second

    explicit TurboHistory(double longestGapSeconds = kLongestGapSeconds)
        : clock_(longestGapSeconds) {}

    // All that is kept, oldest first.
    struct State {
        std::deque<TurboPeriod> periods;
        std::deque<TurboChange> changes;

        bool operator==(const State&) const = default;
        static constexpr auto jsonFields() {
            return std::tuple{jsonField("periods", &State::periods),
                              jsonField("changes", &State::changes)};
        }
    };

    void append(Date date, TurboState state, std::optional<double> load,
                std::optional<double> temperature);
    void append(const Snapshot& snapshot) {
        append(snapshot.date, snapshot.turbo, snapshot.cpuUsage, snapshot.cpuTemperature());
    }

    // Valid until the next append or restore.
    const State& state() const { return state_; }
    const std::deque<TurboPeriod>& periods() const { return state_.periods; }
    const std::deque<TurboChange>& changes() const { return state_.changes; }

    // Goes on from there, after a gap. False, and nothing changes, for what no history tells.
    bool restore(State state);

private:
    struct Sample {
        Date date;
        std::optional<double> load, temperature;
    };

    void change(Date date, TurboState state);
    void record(const Sample& sample);

    ObservationClock clock_;
    State state_;
    std::deque<Sample> recent_;  // of the current period, up to kAroundSeconds back
};

}  // namespace ferovane
