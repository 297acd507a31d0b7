// What a diagnosis is made from. Plain values.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "core/model/date.h"
#include "core/model/snapshot.h"

namespace ferovane {

// One application's recent activity, as ProcessActivity finds it.
struct DiagnosticSource {
    std::string id;         // tells the application from every other
    std::string name;       // what a user reads
    double averageCPU = 0;  // percent of one core over the process window
    double currentCPU = 0;  // percent of one core since the list before
    std::optional<double> averageDiskRate, currentDiskRate;  // bytes per second
    double diskSeconds = 0;  // for how long its disk counters were observed

    bool operator==(const DiagnosticSource&) const = default;
};

struct DiagnosticInput {
    Snapshot snapshot;
    std::vector<DiagnosticSource> sources;
    std::optional<Date> processDate;       // when the processes were last listed
    std::optional<double> processSeconds;  // length of the process window, which ends at that date
    std::optional<int> blockers;           // requests that keep the machine awake
    std::optional<double> batteryPercent;
    bool supportsLowPowerMode = false;

    bool operator==(const DiagnosticInput&) const = default;
};

}  // namespace ferovane
