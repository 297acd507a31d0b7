#include "core/analysis/turbo_history.h"

#include <algorithm>
#include <cmath>

#include "core/analysis/observation_gap.h"

namespace ferovane {
namespace {

bool isKnown(TurboState state) {
    return state == TurboState::disabledDriverLoaded || state == TurboState::driverNotLoaded;
}

void add(std::optional<double> value, std::optional<TurboMeasure>& measure) {
    if (!value || !std::isfinite(*value)) {
        return;
    }
    if (!measure) {
        measure = TurboMeasure{*value, *value, 0};
    }
    ++measure->samples;
    measure->mean += (*value - measure->mean) / measure->samples;
    measure->highest = std::max(measure->highest, *value);
}

template <class Deque>
void keepLast(std::size_t most, Deque& items) {
    while (items.size() > most) {
        items.pop_front();
    }
}

}  // namespace

void TurboHistory::append(Date date, TurboState state, std::optional<double> load,
                          std::optional<double> temperature) {
    if (!isKnown(state)) {
        last_.reset();
        return;
    }
    const bool continues = continuesObservation(last_, date);
    if (!continues) {
        recent_.clear();
        followsChange_ = false;
    } else if (periods_.back().state != state) {
        change(date, state);
    }
    if (!continues || periods_.back().state != state) {
        periods_.push_back({state, date, date, std::nullopt, std::nullopt});
        keepLast(kMostPeriods, periods_);
    }
    last_ = date;
    record({date, load, temperature});
}

void TurboHistory::change(Date date, TurboState state) {
    TurboChange change;
    change.date = date;
    change.state = state;
    for (const Sample& sample : recent_) {
        if (date - sample.date <= kAroundSeconds) {
            add(sample.load, change.loadBefore);
            add(sample.temperature, change.temperatureBefore);
        }
    }
    changes_.push_back(change);
    keepLast(kMostChanges, changes_);
    recent_.clear();
    followsChange_ = true;
}

void TurboHistory::record(const Sample& sample) {
    TurboPeriod& period = periods_.back();
    period.to = sample.date;
    add(sample.load, period.load);
    add(sample.temperature, period.temperature);
    if (followsChange_ && sample.date - changes_.back().date <= kAroundSeconds) {
        add(sample.load, changes_.back().loadAfter);
        add(sample.temperature, changes_.back().temperatureAfter);
    }
    while (!recent_.empty() && sample.date - recent_.front().date > kAroundSeconds) {
        recent_.pop_front();
    }
    recent_.push_back(sample);
    keepLast(kMostRecent, recent_);
}

}  // namespace ferovane
