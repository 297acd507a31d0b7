// What is wrong with a fan, a sensor or the way heat leaves the machine. Plain values and pure
// functions: everything may be called from any thread.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <tuple>

#include "core/analysis/diagnostic_finding.h"
#include "core/analysis/diagnostic_report.h"
#include "core/model/date.h"
#include "core/model/json_fields.h"

namespace ferovane {

inline constexpr double kDaySeconds = 86400;

// Whole days from the reference date on, UTC, at most a billion either way. The date is finite.
int dayOf(Date date);

enum class HealthKind {
    fanStopped,        // although a target is set; rpm
    fanSlow,           // rpm
    fanCeiling,        // does not reach its rated maximum; rpm
    fanUnasked,        // runs without being asked, or much faster than asked; rpm
    tachometerSilent,  // the fan turns all the same, or all readings went at once; rpm
    sensorFrozen,      // degrees Celsius, as are the following
    sensorSpike,
    sensorOffset,
    sensorGone,
    hotterToSink,   // between die and heat sink; kelvin more than in the baseline
    hotterToAir,    // between heat sink and air
    hotterOverall,  // where the machine has no sensor in between
};

// What speaks for a finding, counted up while it is seen and down while it is not: a fault that
// comes and goes is found, one that shows in a single sample is not. In seconds, samples, days or
// weeks, as its owner says.
struct Evidence {
    double count = 0;
    bool raised = false;  // from the limit on, until the count is back at 0
    Date since;           // when it was first seen
    // In the unit of the finding: what was asked or is usual, and what was measured in the end.
    std::optional<double> expected = {}, measured = {};

    void see(double step, double limit, Date date, std::optional<double> usual,
             std::optional<double> seen);
    void miss(double step);

    bool operator==(const Evidence&) const = default;
    static constexpr auto jsonFields() {
        using R = Evidence;
        return std::tuple{jsonField("count", &R::count), jsonField("raised", &R::raised),
                          jsonField("since", &R::since), jsonField("expected", &R::expected),
                          jsonField("measured", &R::measured)};
    }
};

struct HealthFinding {
    HealthKind kind = HealthKind::fanStopped;
    DiagnosticSeverity severity = DiagnosticSeverity::warning;
    DiagnosticConfidence confidence = DiagnosticConfidence::possible;
    std::string part;  // tells it from others of its kind: a fan's index, a sensor's key
    std::string name;  // what a user reads: "风扇 1", a sensor's label; empty for the cooling
    Evidence evidence;
    // Of the hotter kinds: what it is compared with, and that no sensor tells the room's air.
    struct Days {
        Date from, to;

        bool operator==(const Days&) const = default;
    };
    std::optional<Days> baseline = {};
    bool roomUnknown = false;

    bool operator==(const HealthFinding&) const = default;
};

// One sentence with the evidence.
std::string text(const HealthFinding& finding);

// For a list of findings: of the kind `health`, with the sentence as its subject. `now` is the
// moment of the list.
DiagnosticFinding asDiagnostic(const HealthFinding& finding, Date now);

// Puts health findings into an engine's report, each behind the report's own of the same severity,
// and counts them. A report with something to attend to is in the state `attention`, and `stable`
// becomes `observing`; the report's own findings stay as they are.
void addHealth(std::span<const HealthFinding> health, DiagnosticReport& report);

}  // namespace ferovane
