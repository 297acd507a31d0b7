// One input as the rules see it: what cannot be relied on is absent. Any number of threads may look
// at it, as long as nobody changes the input.
#pragma once

#include <optional>
#include <span>
#include <string_view>

#include "core/analysis/diagnostic_input.h"

namespace ferovane {

enum class HotSource { cpu, gpu };
std::string_view subjectOf(HotSource source);  // "CPU" or "GPU"

struct DiagnosticEvidence {
    explicit DiagnosticEvidence(const DiagnosticInput& given);

    const DiagnosticInput& input;  // must outlive this
    std::optional<double> cpuUsage, cpuTemperature, gpuTemperature;
    bool processFresh = false;  // the processes were listed at most 15 s from the sample
    // Absent, and the sources none, when the processes are known to have been listed at another
    // time: what an application did then is no reason to name it now.
    std::optional<double> processSeconds;
    std::span<const DiagnosticSource> sources;

    // The component at or above its limit, the processor before the graphics.
    std::optional<HotSource> hot() const;   // 90 °C, 85 °C
    std::optional<HotSource> warm() const;  // 80 °C, 75 °C
    std::optional<double> temperature(HotSource source) const;

    // Something that a verdict rests on is unknown.
    bool incomplete() const;
};

}  // namespace ferovane
