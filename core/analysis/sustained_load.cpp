#include "core/analysis/sustained_load.h"

#include <algorithm>

#include "core/analysis/numbers.h"

namespace ferovane {

void SustainedLoad::append(Date date, std::optional<double> usage) {
    const std::optional<Date> last = clock_.last();
    const ObservationClock::Step step = clock_.advance(date);
    if (step == ObservationClock::Step::ignored) {
        return;
    }
    if (ifFinite(usage) && step == ObservationClock::Step::continues) {
        extend(*last, date, *usage);
    } else {
        end();
    }
    if (step == ObservationClock::Step::setBack) {
        endAt(date, &SustainedLoadPeriod::from, &SustainedLoadPeriod::to, ended_);
    }
}

void SustainedLoad::extend(Date from, Date to, double usage) {
    if (!run_) {
        if (usage < kBeginPercent) {
            return;
        }
        const SustainedLoadPeriod none{from, from, 0, 0};
        run_ = Run{none, none};
    }
    SustainedLoadPeriod& all = run_->all;
    const double before = all.seconds();
    all.to = to;
    all.mean = (all.mean * before + usage * (to - from)) / all.seconds();
    all.peak = std::max(all.peak, usage);
    const bool confirmed = current().has_value();
    if (usage >= (confirmed ? kEndPercent : kBeginPercent)) {
        run_->busy = all;
        return;
    }
    const double calm = all.to - run_->busy.to;
    if (confirmed ? calm >= kEndSeconds : calm > kDipSeconds) {
        end();
    }
}

void SustainedLoad::end() {
    if (const auto period = current()) {
        ended_.push_back(*period);
    }
    keepLast(kMostPeriods, ended_);
    run_.reset();
}

std::optional<SustainedLoadPeriod> SustainedLoad::current() const {
    return run_ && run_->busy.seconds() >= kBeginSeconds ? std::optional(run_->busy) : std::nullopt;
}

SustainedLoad::State SustainedLoad::state() const {
    State all = ended_;
    if (const auto going = current()) {
        all.push_back(*going);
    }
    return all;
}

bool SustainedLoad::restore(const State& state) {
    if (!inOrder(&SustainedLoadPeriod::from, &SustainedLoadPeriod::to, state)) {
        return false;
    }
    *this = SustainedLoad(clock_.longestGapSeconds());
    ended_ = state;
    end();
    if (!state.empty()) {
        clock_.resume(state.back().to);
    }
    return true;
}

}  // namespace ferovane
