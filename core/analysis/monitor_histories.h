// Everything that a monitor remembers, fed in one place.
#pragma once

#include <map>
#include <optional>
#include <span>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "core/analysis/cpu_load_history.h"
#include "core/analysis/diagnostic_report.h"
#include "core/analysis/machine_health.h"
#include "core/analysis/metric_histories.h"
#include "core/analysis/optimization_assessment.h"
#include "core/analysis/process_activity.h"
#include "core/analysis/recorder.h"
#include "core/analysis/sustained_load.h"
#include "core/analysis/system_telemetry.h"
#include "core/analysis/turbo_history.h"
#include "core/model/date.h"
#include "core/model/fan_target.h"
#include "core/model/json_fields.h"
#include "core/model/snapshot.h"

namespace ferovane {

// What is worth keeping for the next run. Processes are not: theirs has passed by then. As JSON
// without the long lists of numbers.
struct SavedDay {
    struct Metric {
        std::string label;
        MetricKind kind{};
        std::vector<MetricBucket> minutes, hours;

        static constexpr auto jsonFields() {
            return std::tuple{jsonField("label", &Metric::label), jsonField("kind", &Metric::kind)};
        }
    };

    std::map<std::string, Metric> metrics;  // by id
    CpuLoadHistory::State load;
    SustainedLoad::State sustained;
    TurboHistory::State turbo;
    OptimizationAssessment::State assessment;
    HealthRecord health;
    Recorder::State recorder;

    static constexpr auto jsonFields() {
        using R = SavedDay;
        return std::tuple{jsonField("metrics", &R::metrics), jsonField("sustained", &R::sustained),
                          jsonField("turbo", &R::turbo), jsonField("health", &R::health),
                          jsonField("recorder", &R::recorder)};
    }
};

// What a monitor would otherwise feed one by one, at its own pace: seconds that may pass between
// two samples of one observation. Any of the three comes as often as the monitor likes, each in the
// order of time; one without a finite date does not count.
//
// Bounded: by MetricHistories, which takes up to 70 kB for each metric that is seen all day, 5 MB
// for the recorder, 3 MB for all else; 10 MB for a day of 75 metrics, a sample a second. Processes
// of one list come on top.
//
// A plain value: whoever wants to save or draw on another thread copies it there. One thread at a
// time; what accessors return is valid until the next change.
class MonitorHistories {
public:
    // To be longer than the monitor's pace by some, since no sample comes when it is due.
    explicit MonitorHistories(double longestGapSeconds = kLongestGapSeconds);

    // `targets`: what the fans' keys hold (SMC::target); a fan without one is unreadable.
    void add(const Snapshot& snapshot, std::span<const FanTarget> targets = {});
    void add(Date date, std::span<const ProcessSample> processes);
    void add(const SystemTelemetry& telemetry);

    // What the monitor made of it, and did: for the recorder. See Recorder.
    void add(const DiagnosticReport& report) { recorder_.add(report); }
    template <class... Message>
    void note(Message&&... message) {
        recorder_.add(std::forward<Message>(message)...);
    }

    // A power plan or profile took effect at `date`, or was taken back.
    void noteChange(Date date) { assessment_.noteChange(date); }
    void cleaned() { health_.cleaned(); }            // the machine, or it was repaired
    void curveChanged() { health_.curveChanged(); }  // for good

    const MetricHistories& metrics() const { return metrics_; }
    const CpuLoadHistory& load() const { return load_; }
    const SustainedLoad& sustained() const { return sustained_; }
    const TurboHistory& turbo() const { return turbo_; }
    const OptimizationAssessment& assessment() const { return assessment_; }
    const ProcessActivity& processes() const { return processes_; }
    const MachineHealth& health() const { return health_; }
    const Recorder& recorder() const { return recorder_; }

    SavedDay state() const;

    // Goes on from there, after a gap. False, and nothing changes, for what no histories tell.
    bool restore(SavedDay day);

private:
    double gap_;
    MetricHistories metrics_;
    CpuLoadHistory load_;
    SustainedLoad sustained_;
    TurboHistory turbo_;
    OptimizationAssessment assessment_;
    ProcessActivity processes_;
    MachineHealth health_;
    Recorder recorder_;
};

}  // namespace ferovane
