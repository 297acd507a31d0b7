#include "core/analysis/cpu_load_history.h"

#include <algorithm>
#include <cmath>

#include "core/analysis/observation_gap.h"

namespace ferovane {

std::optional<CpuLoadBand> cpuLoadBand(std::optional<double> usage) {
    if (!usage || !std::isfinite(*usage)) {
        return std::nullopt;
    }
    if (*usage >= kSaturatedLoadPercent) {
        return CpuLoadBand::saturated;
    }
    if (*usage >= kHeavyLoadPercent) {
        return CpuLoadBand::heavy;
    }
    if (*usage >= kModerateLoadPercent) {
        return CpuLoadBand::moderate;
    }
    return *usage >= kLightLoadPercent ? CpuLoadBand::light : CpuLoadBand::idle;
}

std::string_view title(CpuLoadBand band) {
    switch (band) {
        case CpuLoadBand::idle:
            return "空闲";
        case CpuLoadBand::light:
            return "轻度负载";
        case CpuLoadBand::moderate:
            return "中度负载";
        case CpuLoadBand::heavy:
            return "高负载";
        case CpuLoadBand::saturated:
            return "满负载";
    }
    return {};
}

void CpuLoadHistory::append(Date date, std::optional<double> usage) {
    if (last_ && date < *last_) {
        spans_.clear();  // the clock was set back: what was recorded has no place in time any more
    }
    forgetBefore(date - kKeptSeconds);
    const std::optional<CpuLoadBand> band = cpuLoadBand(usage);
    if (band && continuesObservation(last_, date)) {
        if (!spans_.empty() && spans_.back().to == *last_ && spans_.back().band == *band) {
            spans_.back().to = date;
        } else {
            spans_.push_back({*last_, date, *band});
        }
    }
    if (spans_.size() > kMostSpans) {
        spans_.pop_front();
    }
    last_ = date;
}

void CpuLoadHistory::forgetBefore(Date earliest) {
    while (!spans_.empty() && spans_.front().to <= earliest) {
        spans_.pop_front();
    }
    if (!spans_.empty()) {
        spans_.front().from = std::max(spans_.front().from, earliest);
    }
}

double CpuLoadHistory::seconds(CpuLoadBand band) const {
    double total = 0;
    for (const CpuLoadSpan& span : spans_) {
        total += span.band == band ? span.to - span.from : 0;
    }
    return total;
}

}  // namespace ferovane
