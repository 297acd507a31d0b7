#include "core/analysis/diagnostic_engine.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <vector>

#include "core/analysis/diagnostic_rules.h"
#include "core/analysis/observation_clock.h"

namespace ferovane {
namespace {

constexpr double kLongestObservedSeconds = 60;

void dropUnlessFinite(std::optional<double>& value) {
    if (value && !std::isfinite(*value)) {
        value.reset();
    }
}

std::optional<DiagnosticSource> presented(const DiagnosticSource* source) {
    if (source == nullptr) {
        return std::nullopt;
    }
    DiagnosticSource copy = *source;
    dropUnlessFinite(copy.averageDiskRate);
    dropUnlessFinite(copy.currentDiskRate);
    return copy;
}

std::optional<bool> performanceLimited(const Snapshot& snapshot) {
    const bool limited = snapshot.limited();
    return limited || snapshot.limitKnown() ? std::optional(limited) : std::nullopt;
}

DiagnosticMetrics metricsOf(const DiagnosticEvidence& evidence) {
    DiagnosticMetrics metrics;
    metrics.cpuUsage = evidence.cpuUsage;
    metrics.cpuTemperature = evidence.cpuTemperature;
    metrics.gpuTemperature = evidence.gpuTemperature;
    metrics.thermalTitle = evidence.input.snapshot.thermalTitle();
    metrics.performanceLimited = performanceLimited(evidence.input.snapshot);
    metrics.processFresh = evidence.processFresh;
    metrics.wakeRequestsKnown = evidence.input.blockers.has_value();
    metrics.processSeconds = evidence.processSeconds;
    metrics.cpuSource = presented(DiagnosticRules::heaviestCpu(evidence));
    metrics.diskSource = presented(DiagnosticRules::heaviestDisk(evidence));
    return metrics;
}

bool needsAttention(const DiagnosticFinding& finding) {
    return finding.severity != DiagnosticSeverity::information;
}

// A stable sort of a handful, without the memory that the library's would ask for.
void putMostSevereFirst(std::vector<DiagnosticFinding>& findings) {
    for (auto next = findings.begin(); next != findings.end(); ++next) {
        const auto place =
            std::ranges::upper_bound(findings.begin(), next, next->severity, std::ranges::greater{},
                                     &DiagnosticFinding::severity);
        std::rotate(place, next, next + 1);
    }
}

DiagnosticState stateOf(const DiagnosticReport& report, const DiagnosticEvidence& evidence,
                        double observed) {
    if (report.attentionCount > 0) {
        return DiagnosticState::attention;
    }
    const double window = evidence.processSeconds.value_or(DiagnosticRules::kVerdictSeconds);
    if (std::min(observed, window) < DiagnosticRules::kVerdictSeconds) {
        return DiagnosticState::sampling;
    }
    if (evidence.incomplete()) {
        return DiagnosticState::partial;
    }
    const bool diskActivity = std::ranges::any_of(report.findings, [](const auto& finding) {
        return finding.kind == DiagnosticKind::diskActivity;
    });
    return evidence.warm() || diskActivity ? DiagnosticState::observing : DiagnosticState::stable;
}

}  // namespace

DiagnosticReport DiagnosticEngine::evaluate(const DiagnosticInput& input) {
    const DiagnosticEvidence evidence(input);
    follow(input.snapshot.date, evidence.hot());

    DiagnosticReport report;
    report.date = input.snapshot.date;
    report.findings = DiagnosticRules::findings(evidence, {observed_, hotSeconds_});
    putMostSevereFirst(report.findings);
    report.attentionCount =
        static_cast<int>(std::ranges::count_if(report.findings, needsAttention));
    report.state = stateOf(report, evidence, observed_);
    report.observedSeconds = std::min(observed_, evidence.processSeconds.value_or(observed_));
    report.metrics = metricsOf(evidence);
    return report;
}

void DiagnosticEngine::follow(Date date, std::optional<HotSource> hot) {
    const bool continues = continuesObservation(last_, date);
    const double seconds = continues ? date - *last_ : 0;
    observed_ = continues ? std::min(observed_ + seconds, kLongestObservedSeconds) : 0;
    hotSeconds_ = continues && hot && hot == hotSource_ ? hotSeconds_ + seconds : 0;
    hotSource_ = hot;
    last_ = date;
}

}  // namespace ferovane
