#include "core/analysis/diagnostic_rules.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <string>
#include <utility>

namespace ferovane::DiagnosticRules {
namespace {

using Action = DiagnosticAction::Kind;
using Confidence = DiagnosticConfidence;
using Kind = DiagnosticKind;
using Severity = DiagnosticSeverity;

constexpr int kSeriousThermalState = 2;
constexpr int kCriticalThermalState = 3;

constexpr double kHotSeconds = 30;          // a short peak of heat is how processors work
constexpr double kUnavailableSeconds = 30;  // the first samples of a run may lack things

// Percent of one core: a whole core on average, and still at it.
constexpr double kSustainedAverageCpu = 100;
constexpr double kSustainedCurrentCpu = 50;
constexpr std::size_t kMostBlamed = 2;

// Bytes per second.
constexpr double kBusyDiskAverage = 20.0 * 1024 * 1024;
constexpr double kBusyDiskCurrent = 5.0 * 1024 * 1024;
constexpr double kBusyDiskSeconds = 30;
constexpr double kLongestDiskSeconds = 60;

constexpr double kLowBatteryPercent = 30;

std::optional<double> asNumber(std::optional<int> value) {
    return value ? std::optional<double>(*value) : std::nullopt;
}

DiagnosticFinding found(std::string id, Kind kind, Severity severity, Confidence confidence) {
    DiagnosticFinding finding;
    finding.id = std::move(id);
    finding.kind = kind;
    finding.severity = severity;
    finding.confidence = confidence;
    return finding;
}

DiagnosticAction toward(Action kind) {
    return {kind, {}};
}

DiagnosticFinding heatFinding(std::string id, Kind kind, Severity severity, Confidence confidence,
                              const DiagnosticEvidence& evidence, HotSource source) {
    auto finding = found(std::move(id), kind, severity, confidence);
    finding.subject = subjectOf(source);
    finding.value = evidence.temperature(source);
    finding.action = toward(Action::temperatureTimeline);
    return finding;
}

DiagnosticFinding limitFinding(std::string id, Kind kind, Severity severity,
                               std::optional<double> value) {
    auto finding = found(std::move(id), kind, severity, Confidence::confirmed);
    finding.value = value;
    finding.action = toward(Action::temperatureTimeline);
    return finding;
}

// What the system says comes before what a temperature suggests: one finding, not several
// explanations of one state.
std::optional<DiagnosticFinding> systemFinding(const DiagnosticEvidence& evidence,
                                               const Observation& observation) {
    const Snapshot& snapshot = evidence.input.snapshot;
    if (snapshot.thermalState == kSeriousThermalState ||
        snapshot.thermalState == kCriticalThermalState) {
        return limitFinding(
            "thermal-pressure", snapshot.limited() ? Kind::thermalLimit : Kind::thermalPressure,
            snapshot.thermalState == kCriticalThermalState ? Severity::critical : Severity::warning,
            snapshot.thermalState);
    }
    if (snapshot.limited()) {
        // In low-power mode the limit is what the user asked for.
        return limitFinding("system-limit", Kind::performanceLimit,
                            snapshot.lowPower ? Severity::information : Severity::warning,
                            asNumber(snapshot.speedLimit));
    }
    const auto hot = evidence.hot();
    if (hot && observation.hotSeconds >= kHotSeconds) {
        auto finding = heatFinding("temperature", Kind::temperature, Severity::warning,
                                   Confidence::possible, evidence, *hot);
        finding.seconds = observation.hotSeconds;
        return finding;
    }
    if (const auto warm = evidence.warm()) {
        return heatFinding("temperature-observation", Kind::temperatureObservation,
                           Severity::information, Confidence::confirmed, evidence, *warm);
    }
    return std::nullopt;
}

std::optional<DiagnosticFinding> memoryFinding(const DiagnosticEvidence& evidence) {
    const auto pressure = evidence.input.snapshot.memoryPressure;
    if (!pressure || *pressure == MemoryPressure::normal) {
        return std::nullopt;
    }
    auto finding =
        found("memory-pressure", Kind::memoryPressure,
              *pressure == MemoryPressure::critical ? Severity::critical : Severity::warning,
              Confidence::confirmed);
    finding.value = rawValue(*pressure);
    finding.action = toward(Action::memoryProcesses);
    return finding;
}

bool usesMoreCpu(const DiagnosticSource& left, const DiagnosticSource& right) {
    return left.averageCPU != right.averageCPU ? left.averageCPU > right.averageCPU
                                               : left.id < right.id;
}

bool isCpuKnown(const DiagnosticSource& source) {
    return std::isfinite(source.averageCPU) && std::isfinite(source.currentCPU);
}

bool sustainsCpu(const DiagnosticSource& source) {
    return isCpuKnown(source) && source.averageCPU >= kSustainedAverageCpu &&
           source.currentCPU >= kSustainedCurrentCpu;
}

DiagnosticFinding applicationFinding(std::string_view prefix, const DiagnosticSource& source,
                                     Kind kind, Severity severity, Confidence confidence) {
    auto finding = found(std::string(prefix) + source.id, kind, severity, confidence);
    finding.subject = source.name;
    finding.action = DiagnosticAction::reviewApplication(source.id);
    return finding;
}

void addCpuFindings(const DiagnosticEvidence& evidence, std::vector<DiagnosticFinding>& list) {
    if (!evidence.processSeconds || *evidence.processSeconds < kVerdictSeconds) {
        return;
    }
    std::array<const DiagnosticSource*, kMostBlamed> blamed{};
    for (const DiagnosticSource& source : evidence.sources) {
        const DiagnosticSource* next = sustainsCpu(source) ? &source : nullptr;
        for (const DiagnosticSource*& place : blamed) {
            if (next != nullptr && (place == nullptr || usesMoreCpu(*next, *place))) {
                std::swap(place, next);
            }
        }
    }
    for (const DiagnosticSource* source : blamed) {
        if (source != nullptr) {
            auto finding = applicationFinding("cpu:", *source, Kind::sustainedCPU,
                                              Severity::warning, Confidence::possible);
            finding.value = source->averageCPU;
            finding.seconds = evidence.processSeconds;
            list.push_back(std::move(finding));
        }
    }
}

bool keepsDiskBusy(const DiagnosticSource& source) {
    return std::isfinite(source.diskSeconds) && source.diskSeconds >= kBusyDiskSeconds &&
           source.averageDiskRate && std::isfinite(*source.averageDiskRate) &&
           *source.averageDiskRate >= kBusyDiskAverage && source.currentDiskRate &&
           std::isfinite(*source.currentDiskRate) && *source.currentDiskRate >= kBusyDiskCurrent;
}

// The first of those that move most data and satisfy `admits`.
template <class Admits>
const DiagnosticSource* heaviestDiskOf(std::span<const DiagnosticSource> sources, Admits admits) {
    const DiagnosticSource* heaviest = nullptr;
    for (const DiagnosticSource& source : sources) {
        if (source.averageDiskRate && std::isfinite(*source.averageDiskRate) && admits(source) &&
            (heaviest == nullptr || *source.averageDiskRate > *heaviest->averageDiskRate)) {
            heaviest = &source;
        }
    }
    return heaviest;
}

std::optional<DiagnosticFinding> diskFinding(const DiagnosticEvidence& evidence) {
    const DiagnosticSource* source = heaviestDiskOf(evidence.sources, keepsDiskBusy);
    if (source == nullptr) {
        return std::nullopt;
    }
    auto finding = applicationFinding("disk:", *source, Kind::diskActivity, Severity::information,
                                      Confidence::confirmed);
    finding.value = source->averageDiskRate;
    finding.seconds = std::min(source->diskSeconds, kLongestDiskSeconds);
    return finding;
}

std::optional<DiagnosticFinding> wakeFinding(const DiagnosticEvidence& evidence) {
    if (evidence.input.blockers.value_or(0) <= 0) {
        return std::nullopt;
    }
    auto finding =
        found("wake-requests", Kind::wakeRequests, Severity::information, Confidence::confirmed);
    finding.value = asNumber(evidence.input.blockers);
    finding.action = toward(Action::wakeRequests);
    return finding;
}

std::optional<DiagnosticFinding> batteryFinding(const DiagnosticEvidence& evidence) {
    const DiagnosticInput& input = evidence.input;
    const bool onBattery = input.snapshot.acPower.has_value() && !*input.snapshot.acPower;
    const bool low = input.batteryPercent && *input.batteryPercent >= 0 &&
                     *input.batteryPercent <= kLowBatteryPercent;
    if (!input.supportsLowPowerMode || !onBattery || input.snapshot.lowPower || !low) {
        return std::nullopt;
    }
    auto finding =
        found("battery-policy", Kind::batteryPolicy, Severity::information, Confidence::confirmed);
    finding.value = input.batteryPercent;
    finding.action = toward(Action::lowPowerPlan);
    return finding;
}

std::optional<DiagnosticFinding> missingDataFinding(const DiagnosticEvidence& evidence,
                                                    const Observation& observation) {
    if (!evidence.incomplete() || observation.seconds < kUnavailableSeconds) {
        return std::nullopt;
    }
    auto finding = found("data-unavailable", Kind::unavailable, Severity::information,
                         Confidence::unavailable);
    finding.action = toward(Action::refresh);
    return finding;
}

}  // namespace

std::vector<DiagnosticFinding> findings(const DiagnosticEvidence& evidence,
                                        const Observation& observation) {
    std::vector<DiagnosticFinding> list;
    const auto add = [&](std::optional<DiagnosticFinding> finding) {
        if (finding) {
            list.push_back(std::move(*finding));
        }
    };
    add(systemFinding(evidence, observation));
    add(memoryFinding(evidence));
    addCpuFindings(evidence, list);
    add(diskFinding(evidence));
    add(wakeFinding(evidence));
    add(batteryFinding(evidence));
    add(missingDataFinding(evidence, observation));
    return list;
}

const DiagnosticSource* heaviestCpu(const DiagnosticEvidence& evidence) {
    const DiagnosticSource* heaviest = nullptr;
    for (const DiagnosticSource& source : evidence.sources) {
        if (isCpuKnown(source) && (heaviest == nullptr || usesMoreCpu(source, *heaviest))) {
            heaviest = &source;
        }
    }
    return heaviest;
}

const DiagnosticSource* heaviestDisk(const DiagnosticEvidence& evidence) {
    return heaviestDiskOf(evidence.sources, [](const DiagnosticSource&) { return true; });
}

}  // namespace ferovane::DiagnosticRules
