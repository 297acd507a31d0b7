#include "core/analysis/process_activity.h"

#include <utility>

namespace ferovane {
namespace {

constexpr double kPercent = 100;
constexpr double kNanosecondsPerSecond = 1e9;

// What a counter has grown by; absent when it went backwards.
std::optional<double> growth(std::uint64_t before, std::uint64_t now) {
    return now >= before ? std::optional(static_cast<double>(now - before)) : std::nullopt;
}

std::optional<double> rate(double amount, double seconds) {
    return seconds > 0 ? std::optional(amount / seconds) : std::nullopt;
}

std::string idOf(const ProcessSample& leader) {
    return std::to_string(leader.pid) + "-" + std::to_string(leader.started);
}

}  // namespace

void ProcessActivity::add(Date date, std::span<const ProcessSample> processes) {
    const std::optional<Date> last = clock_.last();
    const ObservationClock::Step step = clock_.advance(date);
    if (step == ObservationClock::Step::ignored) {
        return;
    }
    if (step == ObservationClock::Step::continues) {
        interval_ = date - *last;
    } else {
        beginAnew();
    }

    newIndex_.clear(processes.size());
    for (std::size_t i = 0; i < processes.size(); ++i) {
        newIndex_.add(processes[i].pid, i);
    }
    regroup(processes);
    if (interval_ > 0) {
        measure(processes);
    }
    remember(processes);
}

void ProcessActivity::beginAnew() {
    interval_ = 0;
    window_.clear();
    applications_.clear();
    processes_.clear();
    index_.clear(0);
}

const ProcessActivity::Process* ProcessActivity::before(const ProcessSample& process) const {
    const auto position = index_.find(process.pid);
    return position && processes_[*position].started == process.started ? &processes_[*position]
                                                                        : nullptr;
}

void ProcessActivity::regroup(std::span<const ProcessSample> processes) {
    findLeaders(processes, newIndex_, leaders_);
    applicationOf_.resize(processes.size());
    newApplications_.clear();
    for (std::size_t i = 0; i < processes.size(); ++i) {
        if (leaders_[i] != i) {
            continue;
        }
        const Process* known = before(processes[i]);
        // A pid that is listed twice leads one application, not two.
        const bool kept = known != nullptr && known->leads && newIndex_.find(processes[i].pid) == i;
        newApplications_.push_back(kept ? std::move(applications_[known->application])
                                        : Application{idOf(processes[i]), {}, {}, {}});
        newApplications_.back().name = processes[i].name;
        applicationOf_[i] = newApplications_.size() - 1;
    }
    for (std::size_t i = 0; i < processes.size(); ++i) {
        applicationOf_[i] = applicationOf_[leaders_[i]];
    }
    std::swap(applications_, newApplications_);
}

void ProcessActivity::measure(std::span<const ProcessSample> processes) {
    const bool newSlot = window_.advance(interval_);
    for (Application& application : applications_) {
        application.latest = {};
        if (newSlot) {
            application.slots[window_.slot()] = {};
        }
    }
    for (std::size_t i = 0; i < processes.size(); ++i) {
        const Process* known = before(processes[i]);
        if (known != nullptr && newIndex_.find(processes[i].pid) == i) {
            measure(*known, processes[i], applications_[applicationOf_[i]].latest);
        }
    }
    for (Application& application : applications_) {
        Use& slot = application.slots[window_.slot()];
        slot.cpuSeconds += application.latest.cpuSeconds;
        slot.diskBytes += application.latest.diskBytes;
        slot.cpuObserved += application.latest.cpuObserved;
        slot.diskObserved += application.latest.diskObserved;
    }
}

void ProcessActivity::measure(const Process& before, const ProcessSample& now, Use& use) const {
    if (const auto nanoseconds = growth(before.cpuNanoseconds, now.cpuNanoseconds)) {
        use.cpuSeconds += *nanoseconds / kNanosecondsPerSecond;
        use.cpuObserved = interval_;
    }
    const auto read = growth(before.diskReadBytes, now.diskReadBytes);
    const auto written = growth(before.diskWriteBytes, now.diskWriteBytes);
    if (read && written) {
        use.diskBytes += *read + *written;
        use.diskObserved = interval_;
    }
}

void ProcessActivity::remember(std::span<const ProcessSample> processes) {
    processes_.resize(processes.size());
    for (std::size_t i = 0; i < processes.size(); ++i) {
        const ProcessSample& now = processes[i];
        processes_[i] = {now.pid,           now.started,        now.cpuNanoseconds,
                         now.diskReadBytes, now.diskWriteBytes, applicationOf_[i],
                         leaders_[i] == i};
    }
    std::swap(index_, newIndex_);
}

std::vector<DiagnosticSource> ProcessActivity::sources() const {
    std::vector<DiagnosticSource> sources;
    const double window = window_.seconds();
    for (const Application& application : applications_) {
        if (!(application.latest.cpuObserved > 0)) {
            continue;
        }
        DiagnosticSource& source = sources.emplace_back();
        source.id = application.id;
        source.name = application.name;
        source.averageCPU = kPercent * window_.sum(application.slots, &Use::cpuSeconds) / window;
        source.currentCPU = kPercent * application.latest.cpuSeconds / interval_;
        source.diskSeconds = window_.sum(application.slots, &Use::diskObserved);
        source.averageDiskRate =
            rate(window_.sum(application.slots, &Use::diskBytes), source.diskSeconds);
        source.currentDiskRate =
            rate(application.latest.diskBytes, application.latest.diskObserved);
    }
    return sources;
}

std::optional<double> ProcessActivity::windowSeconds() const {
    return clock_.last() ? std::optional(window_.seconds()) : std::nullopt;
}

}  // namespace ferovane
