#include "core/analysis/cpu_load_history.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "core/analysis/numbers.h"

namespace ferovane {
namespace {

Date stretchOf(Date date) {
    constexpr double kLength = CpuLoadHistory::kStretchSeconds;
    return {std::floor(date.secondsSinceReference / kLength) * kLength};
}

bool isPossible(const CpuLoadStretch& stretch) {
    return stretch.from == stretchOf(stretch.from) &&
           std::ranges::all_of(stretch.seconds, [](double seconds) { return seconds >= 0; });
}

bool hasBand(const CpuLoadSpan& span) {
    return fromRawValue<CpuLoadBand>(static_cast<int>(span.band)).has_value();
}

}  // namespace

std::optional<CpuLoadBand> cpuLoadBand(std::optional<double> usage) {
    constexpr std::array kBegins{kLightLoadPercent, kModerateLoadPercent, kHeavyLoadPercent,
                                 kSaturatedLoadPercent};
    if (!ifFinite(usage)) {
        return std::nullopt;
    }
    return static_cast<CpuLoadBand>(std::ranges::upper_bound(kBegins, *usage) - kBegins.begin());
}

std::string_view title(CpuLoadBand band) {
    constexpr std::array<std::string_view, kCpuLoadBands> kTitles{"空闲", "轻度负载", "中度负载",
                                                                  "高负载", "满负载"};
    return kTitles[static_cast<std::size_t>(band)];
}

void CpuLoadHistory::append(Date date, std::optional<double> usage) {
    const std::optional<Date> last = clock_.last();
    const ObservationClock::Step step = clock_.advance(date);
    if (step == ObservationClock::Step::ignored) {
        return;
    }
    if (step == ObservationClock::Step::setBack) {
        forgetFrom(date);
    }
    const std::optional<CpuLoadBand> band = cpuLoadBand(usage);
    if (band && step == ObservationClock::Step::continues) {
        count({*last, date, *band});
        if (!state_.spans.empty() && state_.spans.back().to == *last &&
            state_.spans.back().band == *band) {
            state_.spans.back().to = date;
        } else {
            state_.spans.push_back({*last, date, *band});
        }
    }
    forgetBefore(date);
}

// Adds a span to the stretches that it lies in.
void CpuLoadHistory::count(CpuLoadSpan span) {
    while (span.from < span.to) {
        const Date from = stretchOf(span.from);
        if (state_.day.empty() || state_.day.back().from < from) {
            state_.day.push_back({from, {}});
        }
        const Date to = std::min(span.to, from + kStretchSeconds);
        state_.day.back().seconds[static_cast<std::size_t>(span.band)] += to - span.from;
        span.from = to;
    }
}

void CpuLoadHistory::forgetFrom(Date date) {
    endAt(date, &CpuLoadSpan::from, &CpuLoadSpan::to, state_.spans);
    const Date stretch = stretchOf(date);
    while (!state_.day.empty() && state_.day.back().from >= stretch) {
        state_.day.pop_back();
    }
    for (const CpuLoadSpan& span : state_.spans) {
        count({std::max(span.from, stretch), span.to, span.band});
    }
}

void CpuLoadHistory::forgetBefore(Date now) {
    const Date earliest = now - kKeptSeconds;
    while (!state_.spans.empty() &&
           (state_.spans.front().to <= earliest || state_.spans.size() > kMostSpans)) {
        state_.spans.pop_front();
    }
    if (!state_.spans.empty()) {
        state_.spans.front().from = std::max(state_.spans.front().from, earliest);
    }
    while (!state_.day.empty() && now - state_.day.front().from >= kDaySeconds + kStretchSeconds) {
        state_.day.pop_front();
    }
}

bool CpuLoadHistory::restore(State state) {
    if (!inOrder(&CpuLoadSpan::from, &CpuLoadSpan::to, state.spans) ||
        !inOrder(&CpuLoadStretch::from, &CpuLoadStretch::from, state.day) ||
        !std::ranges::all_of(state.spans, hasBand) || !std::ranges::all_of(state.day, isPossible) ||
        (!state.spans.empty() &&
         (state.day.empty() || state.day.back().from > state.spans.back().to))) {
        return false;
    }
    *this = CpuLoadHistory(clock_.longestGapSeconds());
    state_ = std::move(state);
    if (!state_.day.empty()) {
        clock_.resume(state_.spans.empty() ? state_.day.back().from : state_.spans.back().to);
        forgetBefore(*clock_.last());
    }
    return true;
}

double CpuLoadHistory::seconds(CpuLoadBand band) const {
    double total = 0;
    for (const CpuLoadSpan& span : state_.spans) {
        total += span.band == band ? span.to - span.from : 0;
    }
    return total;
}

}  // namespace ferovane
