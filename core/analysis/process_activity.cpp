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
    measure(processes);
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
    newProcesses_.resize(processes.size());
    newApplications_.clear();
    for (std::size_t i = 0; i < processes.size(); ++i) {
        if (leaders_[i] != i) {
            continue;
        }
        const Process* known = before(processes[i]);
        const Application* old = known ? &applications_[known->application] : nullptr;
        const bool kept = old && &processes_[old->leader] == known;
        newProcesses_[i].application = newApplications_.size();
        newApplications_.push_back({i, kept ? old->tally : Tally{}});
    }
    std::swap(applications_, newApplications_);
}

void ProcessActivity::measure(std::span<const ProcessSample> processes) {
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
        const Process* known = before(processes[i]);
        now.sample = processes[i];
        now.application = newProcesses_[leaders_[i]].application;
        now.tally = known ? known->tally : Tally{};
        begin(now.tally);
        if (known && newIndex_.find(now.sample.pid) == i) {
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
    for (const auto& [leader, tally] : applications_) {
        const ProcessSample& it = processes_[leader].sample;
        all.push_back({idOf(it), it.name, it.uid, figuresOf(tally), {}});
    }
    for (std::size_t i = 0; i < processes_.size(); ++i) {
        const auto& [sample, position, tally] = processes_[i];
        if (index_.find(sample.pid) != i) {
            continue;  // listed twice
        }
        ApplicationActivity& application = all[position];
        application.figures.memoryBytes += sample.memoryBytes;
        application.members.push_back({sample.pid, sample.uid, sample.name, figuresOf(tally)});
        application.members.back().figures.memoryBytes = sample.memoryBytes;
    }
    std::erase_if(all, [](const ApplicationActivity& it) { return it.members.empty(); });
    return all;
}

std::vector<DiagnosticSource> ProcessActivity::sources() const {
    std::vector<DiagnosticSource> sources;
    for (const auto& [leader, tally] : applications_) {
        const auto& [slots, latest] = tally;
        if (!(latest.cpuObserved > 0)) {
            continue;
        }
        const ActivityFigures figures = figuresOf(tally);
        DiagnosticSource& source = sources.emplace_back();
        source.id = idOf(processes_[leader].sample);
        source.name = processes_[leader].sample.name;
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
    // Absent for one that is not shown.
    const auto weight = [&](const ApplicationActivity& it) -> std::optional<double> {
        const double disk =
            it.figures.averageRead.value_or(0) + it.figures.averageWritten.value_or(0);
        const bool shown = action.kind == memoryProcesses ||
                           (action.kind == diskProcesses && disk > 0) ||
                           (action.kind == reviewApplication && it.id == action.application);
        const auto memory = static_cast<double>(it.figures.memoryBytes);
        return shown ? std::optional(action.kind == diskProcesses ? disk : memory) : std::nullopt;
    };
    std::erase_if(applications, [&](const auto& it) { return !weight(it); });
    std::ranges::stable_sort(applications, std::greater(), weight);
    return applications;
}

}  // namespace ferovane
