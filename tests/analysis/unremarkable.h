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

inline DiagnosticInput withHeat(DiagnosticInput input, double cpu, double gpu = 45) {
    input.snapshot.sensors[0].celsius = cpu;
    input.snapshot.sensors[1].celsius = gpu;
    return input;
}

inline DiagnosticSource busyProgram(std::string id, double average = 150, double current = 80) {
    DiagnosticSource source;
    source.name = "App " + id;
    source.id = std::move(id);
    source.averageCPU = average;
    source.currentCPU = current;
    return source;
}

inline DiagnosticSource diskProgram(std::string id, double average, double current,
                                    double seconds) {
    DiagnosticSource source = busyProgram(std::move(id), 0, 0);
    source.averageDiskRate = average;
    source.currentDiskRate = current;
    source.diskSeconds = seconds;
    return source;
}

}  // namespace ferovane::testing
