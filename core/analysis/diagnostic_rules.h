// The rules by which a diagnosis finds things. Pure functions: any thread.
#pragma once

#include <optional>
#include <vector>

#include "core/analysis/diagnostic_evidence.h"
#include "core/analysis/diagnostic_finding.h"
#include "core/analysis/diagnostic_input.h"

namespace ferovane::DiagnosticRules {

// A verdict, and the naming of an application, takes this much observation.
inline constexpr double kVerdictSeconds = 45;

// What an engine remembers of the inputs before.
struct Observation {
    double seconds = 0;     // of continuous observation
    double hotSeconds = 0;  // for which the hot component has been so
};

// In the order of the rules.
std::vector<DiagnosticFinding> findings(const DiagnosticEvidence& evidence,
                                        const Observation& observation);

// The heaviest source of each kind; null without one. They live as long as the evidence.
const DiagnosticSource* heaviestCpu(const DiagnosticEvidence& evidence);
const DiagnosticSource* heaviestDisk(const DiagnosticEvidence& evidence);

}  // namespace ferovane::DiagnosticRules
