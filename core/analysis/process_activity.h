// What each application has been doing, from one list of processes to the next.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "core/analysis/activity_window.h"
#include "core/analysis/diagnostic_finding.h"
#include "core/analysis/diagnostic_input.h"
#include "core/analysis/observation_clock.h"
#include "core/analysis/process_groups.h"
#include "core/analysis/process_sample.h"
#include "core/model/date.h"

namespace ferovane {

// What a process did, or all processes of an application together. Absent is what nothing is known
// of.
struct ActivityFigures {
    // Percent of one core: over the window, and since the list before.
    std::optional<double> averageCPU, currentCPU;
    // Bytes per second, both ways or neither: over the time in which they were observed within the
    // window, and since the list before.
    std::optional<double> averageRead, currentRead, averageWritten, currentWritten;
    // Physical footprint in the last list. What several processes share counts in each that the
    // system charges with it, in an application's sum as well.
    std::uint64_t memoryBytes = 0;

    bool operator==(const ActivityFigures&) const = default;
};

struct ProcessMember {
    std::int32_t pid = 0;
    std::uint32_t uid = 0;  // of the user that it runs for
    std::string name;
    ActivityFigures figures;

    bool operator==(const ProcessMember&) const = default;
};

struct ApplicationActivity {
    std::string id, name;   // as in a DiagnosticSource
    std::uint32_t uid = 0;  // that of the process that leads it
    ActivityFigures figures;
    std::vector<ProcessMember> members;  // in the order of the list; at least one

    bool operator==(const ApplicationActivity&) const = default;
};

// Adds up, over a window of at most a minute, what the processes of every application used between
// two lists. No number is invented:
//
//   - a process is the one with the same pid and start time; what it used before it was first seen,
//     and what it used when a counter has gone backwards, is not counted;
//   - what a process that has ended used between its last list and its end is not counted either;
//   - after a gap between two lists, or a clock that was set back, the window begins anew;
//   - what the last interval does not tell is absent.
//
// So the figures are lower bounds. Takes 1.5 kB for each process of the longest list, and a list
// costs time linear in its length. One owner, no locking.
class ProcessActivity {
public:
    explicit ProcessActivity(double longestGapSeconds = kLongestGapSeconds)
        : clock_(longestGapSeconds) {}

    // Takes in the list of a moment; lists come in the order of time.
    void add(Date date, std::span<const ProcessSample> processes);

    // The applications in the last list, in its order: all, and those of which the last interval
    // tells how long they kept a processor busy.
    std::vector<ApplicationActivity> applications() const;
    std::vector<DiagnosticSource> sources() const;

    std::optional<Date> date() const { return clock_.last(); }  // of the last list
    // For how long the lists have followed one another; absent before the first. At most 60 s, or
    // what lies between two lists, where a longer gap is allowed.
    std::optional<double> windowSeconds() const;

private:
    struct Use {
        double cpuSeconds = 0, readBytes = 0, writtenBytes = 0;
        double cpuObserved = 0;   // above 0 when some process told
        double diskObserved = 0;  // seconds in which some process told

        void add(const Use& other);
    };
    struct Tally {
        std::array<Use, ActivityWindow::kSlots> slots{};
        Use latest;  // of the last interval
    };
    struct Application {
        std::size_t leader = 0;  // its position in the list
        Tally tally;
    };
    struct Process {
        ProcessSample sample;
        std::size_t application = 0;  // its position
        Tally tally;
    };

    void beginAnew();
    const Process* before(const ProcessSample& process) const;
    void regroup(std::span<const ProcessSample> processes);
    void measure(std::span<const ProcessSample> processes);
    Use useBetween(const ProcessSample& before, const ProcessSample& now) const;
    ActivityFigures figuresOf(const Tally& tally) const;

    ObservationClock clock_;
    double interval_ = 0;  // seconds between the last two lists; 0 when they do not belong together
    ActivityWindow window_;
    std::vector<Application> applications_;
    std::vector<Process> processes_;  // of the last list
    ProcessIndex index_;              // into them

    // Of the list being taken in; kept for their memory.
    ProcessIndex newIndex_;
    std::vector<std::size_t> leaders_;  // by position in the list
    std::vector<Application> newApplications_;
    std::vector<Process> newProcesses_;
};

// The applications that a view shows for an action of a finding, that which matters most first: all
// by memory, those that used the disk within the window by its average rate, or the one to review.
// None for the other actions. Any thread.
std::vector<ApplicationActivity> applicationsFor(const DiagnosticAction& action,
                                                 std::vector<ApplicationActivity> applications);

}  // namespace ferovane
