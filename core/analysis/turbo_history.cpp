#include "core/analysis/turbo_history.h"

#include <algorithm>
#include <utility>

#include "core/analysis/numbers.h"

namespace ferovane {
namespace {

bool isKnown(TurboState state) {
    return state == TurboState::disabledDriverLoaded || state == TurboState::driverNotLoaded;
}

void add(std::optional<double> value, std::optional<TurboMeasure>& measure) {
    if (!ifFinite(value)) {
        return;
    }
    if (!measure) {
        measure = TurboMeasure{*value, *value, 0};
    }
    ++measure->samples;
    measure->mean += (*value - measure->mean) / measure->samples;
    measure->highest = std::max(measure->highest, *value);
}

}  // namespace

void TurboHistory::append(Date date, TurboState state, std::optional<double> load,
                          std::optional<double> temperature) {
    const ObservationClock::Step step = clock_.advance(date);
    if (step == ObservationClock::Step::ignored) {
        return;
    }
    if (step == ObservationClock::Step::setBack) {
        endAt(date, &TurboPeriod::from, &TurboPeriod::to, state_.periods);
        endAt(date, &TurboChange::date, &TurboChange::date, state_.changes);
    }
    if (!isKnown(state)) {
        clock_.interrupt();
        return;
    }
    const bool continues = step == ObservationClock::Step::continues;
    if (!continues) {
        recent_.clear();
    } else if (state_.periods.back().state != state) {
        change(date, state);
    }
    if (!continues || state_.periods.back().state != state) {
        state_.periods.push_back({state, date, date, std::nullopt, std::nullopt});
        keepLast(kMostPeriods, state_.periods);
    }
    record({date, load, temperature});
}

void TurboHistory::change(Date date, TurboState state) {
    TurboChange& change = state_.changes.emplace_back();
    change.date = date;
    change.state = state;
    for (const Sample& sample : recent_) {
        if (date - sample.date <= kAroundSeconds) {
            add(sample.load, change.loadBefore);
            add(sample.temperature, change.temperatureBefore);
        }
    }
    keepLast(kMostChanges, state_.changes);
    recent_.clear();
}

void TurboHistory::record(const Sample& sample) {
    TurboPeriod& period = state_.periods.back();
    period.to = sample.date;
    add(sample.load, period.load);
    add(sample.temperature, period.temperature);
    const bool followsChange = !state_.changes.empty() && state_.changes.back().date == period.from;
    if (followsChange && sample.date - period.from <= kAroundSeconds) {
        add(sample.load, state_.changes.back().loadAfter);
        add(sample.temperature, state_.changes.back().temperatureAfter);
    }
    while (!recent_.empty() && sample.date - recent_.front().date > kAroundSeconds) {
        recent_.pop_front();
    }
    recent_.push_back(sample);
    keepLast(kMostRecent, recent_);
}

bool TurboHistory::restore(State state) {
    if (!inOrder(&TurboPeriod::from, &TurboPeriod::to, state.periods) ||
        !inOrder(&TurboChange::date, &TurboChange::date, state.changes)) {
        return false;
    }
    *this = TurboHistory(clock_.longestGapSeconds());
    state_ = std::move(state);
    keepLast(kMostPeriods, state_.periods);
    keepLast(kMostChanges, state_.changes);
    if (!state_.periods.empty()) {
        clock_.resume(state_.periods.back().to);
    }
    return true;
}

}  // namespace ferovane
