// Diagnoses in words, as a monitor would show them.
#pragma once

#include <string>

#include "core/analysis/diagnostic_finding.h"
#include "core/analysis/diagnostic_report.h"

// The library tells what it found and leaves the wording to whoever shows it.
std::string textOf(ferovane::DiagnosticState state);
std::string textOf(const ferovane::DiagnosticFinding& finding);
