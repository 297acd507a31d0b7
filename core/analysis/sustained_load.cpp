#include "core/analysis/sustained_load.h"

#include <algorithm>
#include <cmath>

#include "core/analysis/observation_gap.h"

namespace ferovane {

void SustainedLoad::append(Date date, std::optional<double> usage) {
    const bool known = usage && std::isfinite(*usage) && continuesObservation(last_, date);
    if (known) {
        extend(*last_, date, *usage);
    } else {
        end();
    }
    last_ = date;
}

void SustainedLoad::extend(Date from, Date to, double usage) {
    if (!run_) {
        if (usage < kBeginPercent) {
            return;
        }
        const SustainedLoadPeriod none{from, from, 0, 0};
        run_ = Run{none, none, false};
    }
    SustainedLoadPeriod& all = run_->all;
    const double before = all.seconds();
    all.to = to;
    all.mean = (all.mean * before + usage * (to - from)) / all.seconds();
    all.peak = std::max(all.peak, usage);
    if (usage >= (run_->confirmed ? kEndPercent : kBeginPercent)) {
        run_->busy = all;
        run_->confirmed = run_->confirmed || all.seconds() >= kBeginSeconds;
        return;
    }
    const double calm = all.to - run_->busy.to;
    if (run_->confirmed ? calm >= kEndSeconds : calm > kDipSeconds) {
        end();
    }
}

void SustainedLoad::end() {
    if (run_ && run_->confirmed) {
        ended_.push_back(run_->busy);
        if (ended_.size() > kMostPeriods) {
            ended_.pop_front();
        }
    }
    run_.reset();
}

std::optional<SustainedLoadPeriod> SustainedLoad::current() const {
    return run_ && run_->confirmed ? std::optional(run_->busy) : std::nullopt;
}

}  // namespace ferovane
