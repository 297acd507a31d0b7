#include "core/analysis/process_activity.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <numeric>
#include <string>
#include <tuple>
#include <vector>

#include "core/analysis/process_list.h"
#include "tests/analysis/observation.h"

namespace ferovane::testing {
namespace {

using List = std::vector<ProcessSample>;

const ProcessSample* find(const List& list, std::int32_t pid) {
    const auto found = std::ranges::find(list, pid, &ProcessSample::pid);
    return found == list.end() ? nullptr : &*found;
}

// Of every process the one up to which nobody in the list was started by another; in a circle the
// one at which it was entered first.
std::map<const ProcessSample*, const ProcessSample*> leadersOf(const List& list) {
    std::map<const ProcessSample*, const ProcessSample*> leaders;
    for (const ProcessSample& start : list) {
        std::vector<const ProcessSample*> path;
        const ProcessSample* at = &start;
        while (!leaders.contains(at) && std::ranges::find(path, at) == path.end()) {
            path.push_back(at);
            const ProcessSample* parent = at->parentPid > 1 ? find(list, at->parentPid) : nullptr;
            at = parent != nullptr && parent->started <= at->started ? parent : at;
        }
        const ProcessSample* leader = leaders.contains(at) ? leaders[at] : at;
        for (const ProcessSample* one : path) {
            leaders[one] = leader;
        }
    }
    return leaders;
}

struct Use {
    double cpuSeconds = 0, cpuObserved = 0, read = 0, written = 0, diskObserved = 0;

    void add(const Use& other) {
        cpuSeconds += other.cpuSeconds;
        cpuObserved += other.cpuObserved;
        read += other.read;
        written += other.written;
        diskObserved += other.diskObserved;
    }
};

std::optional<double> ratio(double amount, double seconds) {
    return seconds > 0 ? std::optional(amount / seconds) : std::nullopt;
}

std::string idOf(const ProcessSample& process) {
    return std::to_string(process.pid) + "-" + std::to_string(process.started);
}

// The same from all lists since the last gap, by adding up everything each time.
struct ActivityModel {
    struct Look {
        double seconds;  // since the list before
        std::size_t slot;
        std::map<std::string, Use> uses;  // in this time, by application and "process" and id
    };
    TimeModel time;
    List before;
    std::optional<Date> last;
    std::vector<Look> looks;
    std::vector<double> slots;  // how long they are
    double window = 0;          // the seconds of as many slots as make up a minute
    std::size_t first = 0;      // of them

    void add(Date date, const List& list) {
        const TimeModel::Seen seen = time.see(date);
        if (!seen.counts) {
            return;
        }
        const double seconds = seen.goesOn ? date - *seen.before : 0;
        if (seconds == 0) {
            looks.clear();
            slots.clear();
            before.clear();
        } else if (slots.empty() || slots.back() >= 5 || slots.back() + seconds > 15) {
            slots.push_back(seconds);
        } else {
            slots.back() += seconds;
        }
        window = 0;
        first = slots.size();
        while (first > 0 && (window == 0 || window + slots[first - 1] <= 60)) {
            window += slots[--first];
        }
        looks.push_back({seconds, slots.size() - 1, {}});
        for (const auto leaders = leadersOf(list); const ProcessSample& now : list) {
            if (find(list, now.pid) != &now) {
                continue;  // of two entries with one pid the first counts
            }
            Use& all = looks.back().uses[idOf(*leaders.at(&now))];
            Use& use = looks.back().uses["process" + idOf(now)];
            const ProcessSample* was = find(before, now.pid);
            if (was == nullptr || was->started != now.started) {
                continue;
            }
            if (now.cpuNanoseconds >= was->cpuNanoseconds) {
                use.cpuSeconds = double(now.cpuNanoseconds - was->cpuNanoseconds) / 1e9;
                use.cpuObserved = seconds;
            }
            const auto read = std::int64_t(now.diskReadBytes - was->diskReadBytes);
            const auto written = std::int64_t(now.diskWriteBytes - was->diskWriteBytes);
            if (read >= 0 && written >= 0) {
                use.read = double(read);
                use.written = double(written);
                use.diskObserved = seconds;
            }
            all.add(use);
            all.diskObserved = std::min(all.diskObserved, seconds);
        }
        before = list;
        last = date;
    }

    double total() const { return std::accumulate(slots.begin(), slots.end(), 0.0); }

    Use sum(const std::string& id) {
        Use sum;
        for (auto it = looks.rbegin(); it != looks.rend() && it->seconds > 0; ++it) {
            const auto use = it->uses.find(id);
            if (it->slot < first || use == it->uses.end()) {
                break;
            }
            sum.add(use->second);
        }
        return sum;
    }

    ActivityFigures figures(const std::string& id, std::uint64_t memoryBytes) {
        const Use latest = looks.back().uses[id], all = sum(id);
        ActivityFigures told;
        told.memoryBytes = memoryBytes;
        if (all.cpuObserved > 0) {
            told.averageCPU = 100 * all.cpuSeconds / window;
        }
        told.currentCPU =
            ratio(100 * latest.cpuSeconds, latest.cpuObserved > 0 ? looks.back().seconds : 0);
        told.averageRead = ratio(all.read, all.diskObserved);
        told.currentRead = ratio(latest.read, latest.diskObserved);
        told.averageWritten = ratio(all.written, all.diskObserved);
        told.currentWritten = ratio(latest.written, latest.diskObserved);
        return told;
    }

    std::vector<ApplicationActivity> applications() {
        std::vector<ApplicationActivity> all;
        const auto leaders = leadersOf(before);
        for (const ProcessSample& it : before) {
            if (leaders.at(&it) == &it && find(before, it.pid) == &it) {
                all.push_back({idOf(it), it.name, it.uid, figures(idOf(it), 0), {}});
            }
        }
        for (const ProcessSample& it : before) {
            if (find(before, it.pid) == &it) {
                auto& application =
                    *std::ranges::find(all, idOf(*leaders.at(&it)), &ApplicationActivity::id);
                application.figures.memoryBytes += it.memoryBytes;
                application.members.push_back(
                    {it.pid, it.uid, it.name, figures("process" + idOf(it), it.memoryBytes)});
            }
        }
        return all;
    }

    std::vector<DiagnosticSource> sources() {
        std::vector<DiagnosticSource> sources;
        for (const ApplicationActivity& it : applications()) {
            if (it.figures.currentCPU) {
                const Use latest = looks.back().uses[it.id], all = sum(it.id);
                sources.push_back({it.id, it.name, *it.figures.averageCPU, *it.figures.currentCPU,
                                   ratio(all.read + all.written, all.diskObserved),
                                   ratio(latest.read + latest.written, latest.diskObserved),
                                   all.diskObserved});
            }
        }
        return sources;
    }
};

// Few pids and start times, so that many meet, repeat, and are each other's parents. The figures
// are such that sums of them are exact.
void change(List& list, Dice& dice) {
    constexpr std::uint64_t kTick = 1'953'125;  // nanoseconds, of which 512 are a second
    std::erase_if(list, [&](const auto&) { return dice.oneIn(30); });
    while (list.size() < 14) {
        list.push_back({dice.upTo(20), dice.upTo(20), dice.bits() % 3, 0, 0, dice.bits() % 1000,
                        "p" + std::to_string(dice.upTo(9)), unsigned(dice.upTo(3)), 0});
    }
    for (ProcessSample& one : list) {
        one.cpuNanoseconds += kTick * (dice.bits() % 512);
        one.diskReadBytes += dice.bits() % 100'000;
        one.diskWriteBytes += dice.oneIn(2) ? dice.bits() % 100'000 : 0;
        (dice.oneIn(2) ? one.cpuNanoseconds : one.diskWriteBytes) *= dice.oneIn(40) ? 0U : 1U;
        one.memoryBytes = dice.bits() % 1000;
        one.parentPid = dice.oneIn(60) ? dice.upTo(20) : one.parentPid;
    }
    if (dice.oneIn(4)) {
        std::ranges::shuffle(list, dice.engine());
    }
}

TEST(ProcessActivityTest, AddsUpWhatThePlainWayAddsUp) {
    std::size_t told = 0;
    for (unsigned seed = 0; seed < 15; ++seed) {
        Dice dice(seed);
        ProcessActivity activity;
        ActivityModel model;
        List list;
        ASSERT_EQ(activity.windowSeconds(), std::nullopt);
        const double pace = dice.pick({0, 0, 0.5, 1, 4.75, 5, 7, 12.5, 15});
        Clock clock(dice, pace, 80);
        for (int i = 0; i < 250; ++i) {
            const Date date = clock.next(pace > 0 ? pace : dice.pick({0.5, 2, 4.75, 9, 15}));
            change(list, dice);
            activity.add(date, list);
            model.add(date, list);
            ASSERT_EQ(activity.date(), model.last);
            const auto window = activity.windowSeconds();
            ASSERT_EQ(window, model.last ? std::optional(model.window) : std::nullopt);
            ASSERT_TRUE(model.total() < 60 || (window >= 45.0 && window <= 60.0)) << seed;
            ASSERT_TRUE(activity.applications() == model.applications()) << seed << ", " << i;
            ASSERT_EQ(activity.sources(), model.sources()) << "seed " << seed << ", list " << i;
            told += activity.sources().size();
        }
    }
    EXPECT_GT(told, 10000);
}

TEST(ProcessActivityTest, ShowsTheApplicationsThatAFindingIsAbout) {
    std::vector<ApplicationActivity> all;
    for (const auto& [id, memory, read, written] :
         {std::tuple("a", 5U, 1, 0), {"b", 9, 0, 0}, {"c", 5, 2, 2}, {"d", 0, 0, 3}}) {
        ActivityFigures figures;
        figures.memoryBytes = memory;
        figures.averageRead = read;
        figures.averageWritten = written;
        all.push_back({id, "", 0, figures, {}});
    }
    all.push_back({"e", "", 0, {}, {}});
    using enum DiagnosticAction::Kind;
    for (const auto& [action, expected] :
         {std::pair(DiagnosticAction{memoryProcesses, ""}, "bacde"),
          {DiagnosticAction{diskProcesses, ""}, "cda"},
          {DiagnosticAction::reviewApplication("c"), "c"},
          {DiagnosticAction{wakeRequests, ""}, ""}}) {
        std::string told;
        for (const ApplicationActivity& it : applicationsFor(action, all)) {
            told += it.id;
        }
        EXPECT_EQ(told, expected);
    }
}

// On the machine that the tests run on; what is read of a process, the shim's tests ask.
TEST(ProcessListTest, ListsThisProcess) {
    ProcessList list;
    const auto processes = list.read();
    ASSERT_TRUE(processes);
    const List copy(processes->begin(), processes->end());
    const ProcessSample *self = find(copy, getpid()), *parent = find(copy, getppid());
    ASSERT_TRUE(self != nullptr && parent != nullptr);
    EXPECT_EQ(self->parentPid, parent->pid);
    EXPECT_TRUE(self->started >= parent->started && self->started > 0);
    EXPECT_TRUE(self->cpuNanoseconds > 0 && self->memoryBytes > 0 && self->uid == getuid());
    EXPECT_EQ(self->name, std::string("analysis_tests").substr(0, self->name.size()));
    EXPECT_GE(list.inaccessible(), 0);
}

}  // namespace
}  // namespace ferovane::testing
