#include "core/analysis/process_activity.h"

#include <algorithm>
#include <functional>
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
    remember(processes);
    measure();
    std::swap(processes_, newProcesses_);
    std::swap(index_, newIndex_);
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
    return position && processes_[*position].sample.started == process.started
               ? &processes_[*position]
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
                                        : Application{idOf(processes[i]), {}, {}});
        newApplications_.back().name = processes[i].name;
        applicationOf_[i] = newApplications_.size() - 1;
    }
    for (std::size_t i = 0; i < processes.size(); ++i) {
        applicationOf_[i] = applicationOf_[leaders_[i]];
    }
    std::swap(applications_, newApplications_);
}

void ProcessActivity::remember(std::span<const ProcessSample> processes) {
    newProcesses_.resize(processes.size());
    for (std::size_t i = 0; i < processes.size(); ++i) {
        Process& now = newProcesses_[i];
        const Process* known = before(processes[i]);
        now.sample = processes[i];
        now.application = applicationOf_[i];
        now.leads = leaders_[i] == i;
        now.tally = known != nullptr ? known->tally : Tally{};
    }
}

void ProcessActivity::measure() {
    const bool newSlot = window_.advance(interval_);
    const auto begin = [&](Tally& tally) {
        tally.latest = {};
        if (newSlot) {
            tally.slots[window_.slot()] = {};
        }
    };
    for (Application& application : applications_) {
        begin(application.tally);
    }
    for (std::size_t i = 0; i < newProcesses_.size(); ++i) {
        Process& now = newProcesses_[i];
        begin(now.tally);
        const Process* known = before(now.sample);
        if (known != nullptr && newIndex_.find(now.sample.pid) == i) {
            now.tally.latest = useBetween(known->sample, now.sample);
            now.tally.slots[window_.slot()].add(now.tally.latest);
            applications_[now.application].tally.latest.add(now.tally.latest);
        }
    }
    for (Application& application : applications_) {
        Use& latest = application.tally.latest;
        latest.diskObserved = std::min(latest.diskObserved, interval_);
        application.tally.slots[window_.slot()].add(latest);
    }
}

void ProcessActivity::Use::add(const Use& other) {
    cpuSeconds += other.cpuSeconds;
    readBytes += other.readBytes;
    writtenBytes += other.writtenBytes;
    cpuObserved += other.cpuObserved;
    diskObserved += other.diskObserved;
}

ProcessActivity::Use ProcessActivity::useBetween(const ProcessSample& before,
                                                 const ProcessSample& now) const {
    Use use;
    if (const auto nanoseconds = growth(before.cpuNanoseconds, now.cpuNanoseconds)) {
        use.cpuSeconds = *nanoseconds / kNanosecondsPerSecond;
        use.cpuObserved = interval_;
    }
    const auto read = growth(before.diskReadBytes, now.diskReadBytes);
    const auto written = growth(before.diskWriteBytes, now.diskWriteBytes);
    if (read && written) {
        use.readBytes = *read;
        use.writtenBytes = *written;
        use.diskObserved = interval_;
    }
    return use;
}

ActivityFigures ProcessActivity::figuresOf(const Tally& tally) const {
    const auto& [slots, latest] = tally;
    const auto sum = [&](double Use::*member) { return window_.sum(tally.slots, member); };
    ActivityFigures figures;
    if (sum(&Use::cpuObserved) > 0) {
        figures.averageCPU = kPercent * sum(&Use::cpuSeconds) / window_.seconds();
    }
    if (latest.cpuObserved > 0) {
        figures.currentCPU = kPercent * latest.cpuSeconds / interval_;
    }
    const double observed = sum(&Use::diskObserved);
    figures.averageRead = rate(sum(&Use::readBytes), observed);
    figures.averageWritten = rate(sum(&Use::writtenBytes), observed);
    figures.currentRead = rate(latest.readBytes, latest.diskObserved);
    figures.currentWritten = rate(latest.writtenBytes, latest.diskObserved);
    return figures;
}

std::vector<ApplicationActivity> ProcessActivity::applications() const {
    std::vector<ApplicationActivity> all;
    for (const Application& application : applications_) {
        all.push_back({application.id, application.name, 0, figuresOf(application.tally), {}});
    }
    for (std::size_t i = 0; i < processes_.size(); ++i) {
        const auto& [sample, position, leads, tally] = processes_[i];
        if (index_.find(sample.pid) != i) {
            continue;  // listed twice
        }
        ApplicationActivity& application = all[position];
        application.uid = leads ? sample.uid : application.uid;
        application.figures.memoryBytes += sample.memoryBytes;
        application.members.push_back({sample.pid, sample.uid, sample.name, figuresOf(tally)});
        application.members.back().figures.memoryBytes = sample.memoryBytes;
    }
    std::erase_if(all, [](const ApplicationActivity& it) { return it.members.empty(); });
    return all;
}

std::vector<DiagnosticSource> ProcessActivity::sources() const {
    std::vector<DiagnosticSource> sources;
    for (const Application& application : applications_) {
        const auto& [slots, latest] = application.tally;
        if (!(latest.cpuObserved > 0)) {
            continue;
        }
        const ActivityFigures figures = figuresOf(application.tally);
        DiagnosticSource& source = sources.emplace_back();
        source.id = application.id;
        source.name = application.name;
        source.averageCPU = *figures.averageCPU;
        source.currentCPU = *figures.currentCPU;
        source.diskSeconds = window_.sum(slots, &Use::diskObserved);
        source.averageDiskRate =
            rate(window_.sum(slots, &Use::readBytes) + window_.sum(slots, &Use::writtenBytes),
                 source.diskSeconds);
        source.currentDiskRate = rate(latest.readBytes + latest.writtenBytes, latest.diskObserved);
    }
    return sources;
}

std::optional<double> ProcessActivity::windowSeconds() const {
    return clock_.last() ? std::optional(window_.seconds()) : std::nullopt;
}

std::vector<ApplicationActivity> applicationsFor(const DiagnosticAction& action,
                                                 std::vector<ApplicationActivity> applications) {
    using enum DiagnosticAction::Kind;
    const auto memory = [](const auto& it) { return it.figures.memoryBytes; };
    const auto diskRate = [](const auto& it) {
        return it.figures.averageRead.value_or(0) + it.figures.averageWritten.value_or(0);
    };
    std::erase_if(applications, [&](const ApplicationActivity& it) {
        return action.kind == diskProcesses       ? !(diskRate(it) > 0)
               : action.kind == reviewApplication ? it.id != action.application
                                                  : action.kind != memoryProcesses;
    });
    if (action.kind == memoryProcesses) {
        std::ranges::stable_sort(applications, std::greater(), memory);
    } else {
        std::ranges::stable_sort(applications, std::greater(), diskRate);
    }
    return applications;
}

}  // namespace ferovane
