#include "core/analysis/cpu_load_band.h"

#include <cmath>

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

}  // namespace ferovane
