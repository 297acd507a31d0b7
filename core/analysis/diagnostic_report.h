// The verdict of one evaluation. Plain values.
#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "core/analysis/diagnostic_finding.h"
#include "core/analysis/diagnostic_input.h"
#include "core/model/date.h"

namespace ferovane {

enum class DiagnosticState {
    sampling,   // observed for too short a time to say anything
    attention,  // something is wrong
    observing,  // nothing wrong, something worth watching
    stable,     // nothing to tell
    partial     // nothing wrong in what is known, but data are missing
};

// The figures shown beside the findings. A number that is not finite is absent.
struct DiagnosticMetrics {
    std::optional<double> cpuUsage;                        // percent
    std::optional<double> cpuTemperature, gpuTemperature;  // degrees Celsius
    std::string_view thermalTitle;                         // Snapshot::thermalTitle
    std::optional<bool>
        performanceLimited;          // absent when no limit is reported and not all are known
    bool processFresh = false;       // the processes were listed at most 15 s before the sample
    bool wakeRequestsKnown = false;  // the input told the number of blockers
    std::optional<double> processSeconds;  // length of the process window
    std::optional<DiagnosticSource>
        cpuSource;  // uses most CPU on average; a tie goes to the lower id
    std::optional<DiagnosticSource> diskSource;  // moves most data on average; a tie to the first

    bool operator==(const DiagnosticMetrics&) const = default;
};

struct DiagnosticReport {
    DiagnosticState state = DiagnosticState::sampling;
    std::vector<DiagnosticFinding> findings;  // most severe first, then in the order of the rules
    int attentionCount = 0;                   // findings that are more than information
    double observedSeconds =
        0;  // for how long everything the report says has been observed, at most 60
    Date date;
    DiagnosticMetrics metrics;

    bool operator==(const DiagnosticReport&) const = default;
};

}  // namespace ferovane
