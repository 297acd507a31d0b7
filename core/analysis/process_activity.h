// What each application has been doing, from one list of processes to the next.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "core/analysis/activity_window.h"
#include "core/analysis/diagnostic_input.h"
#include "core/analysis/observation_clock.h"
#include "core/analysis/process_groups.h"
#include "core/analysis/process_sample.h"
#include "core/model/date.h"

namespace ferovane {

// Adds up, over a window of at most a minute, what the processes of every application used between
// two lists. No number is invented:
//
//   - a process is the one with the same pid and start time; what it used before it was first seen,
//     and what it used when a counter has gone backwards, is not counted;
//   - what a process that has ended used between its last list and its end is not counted either;
//   - after a gap between two lists, or a clock that was set back, the window begins anew;
//   - an application of which the last interval tells nothing is left out.
//
// So the figures are lower bounds. Memory is bounded by the number of processes in one list, and a
// list costs time linear in it. One owner, no locking.
class ProcessActivity {
public:
    explicit ProcessActivity(double longestGapSeconds = kLongestGapSeconds)
        : clock_(longestGapSeconds) {}

    // Takes in the list of a moment; lists come in the order of time.
    void add(Date date, std::span<const ProcessSample> processes);

    // The applications in the last list, in its order.
    std::vector<DiagnosticSource> sources() const;

    std::optional<Date> date() const { return clock_.last(); }  // of the last list
    // For how long the lists have followed one another; absent before the first. At most 60 s, or
    // what lies between two lists, where a longer gap is allowed.
    std::optional<double> windowSeconds() const;

private:
    struct Use {
        double cpuSeconds = 0, diskBytes = 0;
        double cpuObserved = 0, diskObserved = 0;  // seconds in which some process told
    };
    struct Application {
        std::string id, name;
        std::array<Use, ActivityWindow::kSlots> slots{};
        Use latest;  // of the last interval
    };
    struct Process {
        std::int32_t pid = 0;
        std::uint64_t started = 0, cpuNanoseconds = 0, diskReadBytes = 0, diskWriteBytes = 0;
        std::size_t application = 0;  // its position
        bool leads = false;           // that application
    };

    void beginAnew();
    const Process* before(const ProcessSample& process) const;
    void regroup(std::span<const ProcessSample> processes);
    void measure(std::span<const ProcessSample> processes);
    void measure(const Process& before, const ProcessSample& now, Use& use) const;
    void remember(std::span<const ProcessSample> processes);

    ObservationClock clock_;
    double interval_ = 0;  // seconds between the last two lists; 0 when they do not belong together
    ActivityWindow window_;
    std::vector<Application> applications_;
    std::vector<Process> processes_;  // of the last list
    ProcessIndex index_;              // into them

    // Of the list being taken in; kept for their memory.
    ProcessIndex newIndex_;
    std::vector<std::size_t> leaders_, applicationOf_;  // by position in the list
    std::vector<Application> newApplications_;
};

}  // namespace ferovane
