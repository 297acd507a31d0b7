#include "core/analysis/diagnostic_evidence.h"

#include <cmath>

#include "core/analysis/observation_clock.h"

namespace ferovane {
namespace {

struct Limits {
    double cpu, gpu;  // degrees Celsius
};
constexpr Limits kHot{90, 85};
constexpr Limits kWarm{80, 75};

std::optional<double> finite(std::optional<double> value) {
    return value && std::isfinite(*value) ? value : std::nullopt;
}

std::optional<HotSource> reaching(const Limits& limits, const DiagnosticEvidence& evidence) {
    if (evidence.cpuTemperature && *evidence.cpuTemperature >= limits.cpu) {
        return HotSource::cpu;
    }
    if (evidence.gpuTemperature && *evidence.gpuTemperature >= limits.gpu) {
        return HotSource::gpu;
    }
    return std::nullopt;
}

}  // namespace

std::string_view subjectOf(HotSource source) {
    return source == HotSource::cpu ? "CPU" : "GPU";
}

DiagnosticEvidence::DiagnosticEvidence(const DiagnosticInput& given)
    : input(given),
      cpuUsage(finite(given.snapshot.cpuUsage)),
      cpuTemperature(finite(given.snapshot.cpuTemperature())),
      gpuTemperature(finite(given.snapshot.temperature(SensorCategory::gpu))) {
    processFresh = given.processDate &&
                   std::abs(given.snapshot.date - *given.processDate) <= kLongestGapSeconds;
    const bool outdated = given.processDate && !processFresh;
    if (outdated) {
        return;
    }
    sources = given.sources;
    processSeconds = finite(given.processSeconds);
    if (processSeconds && *processSeconds < 0) {
        processSeconds.reset();
    }
}

std::optional<HotSource> DiagnosticEvidence::hot() const {
    return reaching(kHot, *this);
}

std::optional<HotSource> DiagnosticEvidence::warm() const {
    return reaching(kWarm, *this);
}

std::optional<double> DiagnosticEvidence::temperature(HotSource source) const {
    return source == HotSource::cpu ? cpuTemperature : gpuTemperature;
}

bool DiagnosticEvidence::incomplete() const {
    const Snapshot& snapshot = input.snapshot;
    return !cpuTemperature || !cpuUsage || !snapshot.limitKnown() || !snapshot.memoryPressure ||
           !processSeconds || !input.blockers;
}

}  // namespace ferovane
