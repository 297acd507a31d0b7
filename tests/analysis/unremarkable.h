// An input that gives a diagnosis nothing to find.
#pragma once

#include "core/analysis/diagnostic_input.h"
#include "core/model/date.h"

namespace ferovane::testing {

inline constexpr Date kStart{700000000};  // seconds that a double adds up exactly

inline DiagnosticInput unremarkable(double seconds) {
    DiagnosticInput input;
    Snapshot& snapshot = input.snapshot;
    snapshot.date = kStart + seconds;
    snapshot.cpuUsage = 20;
    snapshot.sensors = {{"TC0P", "CPU · TC0P", 50}, {"TG0P", "GPU · TG0P", 45}};
    snapshot.speedLimit = snapshot.schedulerLimit = 100;
    snapshot.availableCPUs = snapshot.totalCPUs = 8;
    snapshot.acPower = true;
    snapshot.memoryPressure = MemoryPressure::normal;
    input.processDate = snapshot.date;
    input.processSeconds = 60;
    input.blockers = 0;
    return input;
}

}  // namespace ferovane::testing
