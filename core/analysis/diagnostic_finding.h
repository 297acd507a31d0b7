// One thing that a diagnosis tells the user, and how sure it is. Plain values.
#pragma once

#include <optional>
#include <string>
#include <utility>

namespace ferovane {

enum class DiagnosticSeverity { information, warning, critical };

enum class DiagnosticConfidence {
    confirmed,   // the system itself says so
    possible,    // follows from what was observed
    unavailable  // data are missing
};

enum class DiagnosticKind {
    thermalPressure,
    thermalLimit,
    performanceLimit,
    temperature,
    temperatureObservation,
    sustainedCPU,
    memoryPressure,
    diskActivity,
    wakeRequests,
    batteryPolicy,
    unavailable,
    health  // of a fan, a sensor or the cooling; never from the engine (health_finding.h)
};

// What a view offers next to a finding.
struct DiagnosticAction {
    enum class Kind {
        reviewApplication,
        memoryProcesses,
        diskProcesses,
        temperatureTimeline,
        wakeRequests,
        lowPowerPlan,
        refresh
    };

    Kind kind = Kind::refresh;
    std::string application;  // id of the source to review; empty for every other kind

    static DiagnosticAction reviewApplication(std::string id) {
        return {Kind::reviewApplication, std::move(id)};
    }
    bool operator==(const DiagnosticAction&) const = default;
};

struct DiagnosticFinding {
    std::string id;  // the same in every report that finds the same thing
    DiagnosticKind kind = DiagnosticKind::unavailable;
    DiagnosticSeverity severity = DiagnosticSeverity::information;
    DiagnosticConfidence confidence = DiagnosticConfidence::unavailable;
    // "CPU", "GPU" or the name of an application; of the kind `health` the whole sentence.
    std::optional<std::string> subject;
    // By kind: the thermal state's number, percent of full speed, degrees Celsius, percent of one
    // core, the kernel's pressure level, bytes per second, requests, percent of charge.
    std::optional<double> value;
    std::optional<double> seconds;  // for how long it has been observed
    std::optional<DiagnosticAction> action;

    bool operator==(const DiagnosticFinding&) const = default;
};

}  // namespace ferovane
