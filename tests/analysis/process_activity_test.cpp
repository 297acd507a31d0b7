#include "core/analysis/process_activity.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <numeric>
#include <string>
#include <vector>

#include "core/analysis/process_list.h"
#include "tests/analysis/unremarkable.h"
#include "tests/support/dice.h"

namespace ferovane {
namespace {

using testing::Dice;
using testing::kStart;

using List = std::vector<ProcessSample>;

// A program and its helper, a second apart: their use counts for the program.
TEST(ProcessActivityTest, FoldsHelpersIntoTheirApplication) {
    ProcessActivity activity;
    for (std::uint64_t second = 0; second <= 40; ++second) {
        activity.add(kStart + static_cast<double>(second),
                     List{{100, 1, 5, second * 500'000'000, 0, 0, "editor"},
                          {101, 100, 6, second * 250'000'000, 0, second * 4096, "helper"}});
    }
    EXPECT_EQ(activity.windowSeconds(), 40);
    EXPECT_EQ(activity.date(), kStart + 40);
    EXPECT_EQ(activity.sources(),
              (std::vector<DiagnosticSource>{{"100-5", "editor", 75, 75, 4096, 4096, 40}}));
}

struct Use {
    double cpuSeconds = 0, diskBytes = 0, cpuObserved = 0, diskObserved = 0;
};

// The same from plain lists and maps, by walking and adding up everything each time.
class ActivityModel {
public:
    void add(Date date, const List& all) {
        const double dt = date_ ? date - *date_ : 0;
        interval_ = dt > 0 && dt <= 15 ? dt : 0;
        if (interval_ == 0) {
            slots_.clear();
            uses_.clear();
            before_.clear();
            led_.clear();
        }
        date_ = date;
        // A slot takes in intervals until it is 5 s long; the window has as many as make a minute.
        if (interval_ > 0) {
            if (slots_.empty() || slots_.back().seconds >= 5) {
                slots_.push_back({++slotNumber_, 0});
            }
            slots_.back().seconds += interval_;
            while (slots_.size() > 1 && window() > 60) {
                slots_.erase(slots_.begin());
            }
        }
        const auto leaders = leadersOf(all);
        std::map<std::string, std::vector<std::pair<int, Use>>> uses;
        latest_.clear();
        for (const ProcessSample& one : all) {
            if (find(all, one.pid) != &one) {
                continue;  // of two entries with one pid the first counts
            }
            const ProcessSample* leader = leaders.at(&one);
            const std::string id =
                std::to_string(leader->pid) + "-" + std::to_string(leader->started);
            if (leader == &one) {
                order_.push_back({id, one.name});
            }
            if (!uses.contains(id)) {
                uses[id] = led_.contains(id) ? uses_[id] : decltype(uses_)::mapped_type();
            }
            const ProcessSample* was = find(before_, one.pid);
            if (interval_ > 0 && was != nullptr && was->started == one.started) {
                addUse(*was, one, latest_[id]);
            }
        }
        names_ = std::exchange(order_, {});
        for (auto& [id, use] : latest_) {
            uses[id].emplace_back(slotNumber_, use);
        }
        uses_ = uses;
        led_.clear();
        for (const auto& [id, name] : names_) {
            led_[id] = true;
        }
        before_ = all;
    }

    std::vector<DiagnosticSource> sources() {
        std::vector<DiagnosticSource> sources;
        for (const auto& [id, name] : names_) {
            const Use last = latest_[id];
            if (last.cpuObserved == 0) {
                continue;
            }
            Use sum;
            for (const auto& [slot, use] : uses_[id]) {
                if (slot >= slots_.front().number) {
                    sum.cpuSeconds += use.cpuSeconds;
                    sum.diskBytes += use.diskBytes;
                    sum.diskObserved += use.diskObserved;
                }
            }
            sources.push_back({id, name, 100 * sum.cpuSeconds / window(),
                               100 * last.cpuSeconds / interval_, rate(sum), rate(last),
                               sum.diskObserved});
        }
        return sources;
    }

    double window() const {
        double seconds = 0;
        for (const Slot& slot : slots_) {
            seconds += slot.seconds;
        }
        return seconds;
    }

private:
    struct Slot {
        int number;
        double seconds;
    };

    static const ProcessSample* find(const List& list, std::int32_t pid) {
        const auto found = std::ranges::find(list, pid, &ProcessSample::pid);
        return found == list.end() ? nullptr : &*found;
    }

    // Up to a process that nobody in the list started; in a circle to where it was entered.
    static std::map<const ProcessSample*, const ProcessSample*> leadersOf(const List& list) {
        std::map<const ProcessSample*, const ProcessSample*> leaders;
        for (const ProcessSample& start : list) {
            std::vector<const ProcessSample*> path;
            const ProcessSample* at = &start;
            while (std::ranges::find(path, at) == path.end() && !leaders.contains(at)) {
                path.push_back(at);
                const ProcessSample* parent =
                    at->parentPid > 1 ? find(list, at->parentPid) : nullptr;
                at = parent != nullptr && parent->started <= at->started ? parent : at;
            }
            const ProcessSample* leader = leaders.contains(at) ? leaders[at] : at;
            for (const ProcessSample* one : path) {
                leaders[one] = leader;
            }
        }
        return leaders;
    }

    void addUse(const ProcessSample& was, const ProcessSample& is, Use& use) const {
        if (is.cpuNanoseconds >= was.cpuNanoseconds) {
            use.cpuSeconds += static_cast<double>(is.cpuNanoseconds - was.cpuNanoseconds) / 1e9;
            use.cpuObserved = interval_;
        }
        if (is.diskReadBytes >= was.diskReadBytes && is.diskWriteBytes >= was.diskWriteBytes) {
            use.diskBytes += static_cast<double>(is.diskReadBytes - was.diskReadBytes) +
                             static_cast<double>(is.diskWriteBytes - was.diskWriteBytes);
            use.diskObserved = interval_;
        }
    }

    static std::optional<double> rate(const Use& use) {
        return use.diskObserved > 0 ? std::optional(use.diskBytes / use.diskObserved)
                                    : std::nullopt;
    }

    std::optional<Date> date_;
    double interval_ = 0;
    int slotNumber_ = 0;
    std::vector<Slot> slots_;
    std::map<std::string, std::vector<std::pair<int, Use>>> uses_;
    std::map<std::string, Use> latest_;
    std::map<std::string, bool> led_;
    std::vector<std::pair<std::string, std::string>> names_, order_;
    List before_;
};

// Few pids and start times, so that many meet, repeat, and are each other's parents.
void change(List& list, Dice& dice) {
    std::erase_if(list, [&](const auto&) { return dice.oneIn(30); });
    while (list.size() < 14) {
        list.push_back({dice.upTo(20), dice.upTo(20), dice.bits() % 3, dice.bits() % 1000, 0,
                        dice.bits() % 1000, "p" + std::to_string(dice.upTo(9))});
    }
    for (ProcessSample& one : list) {
        one.cpuNanoseconds += dice.bits() % 1'000'000'000;
        one.diskReadBytes += dice.bits() % 100'000;
        one.diskWriteBytes += dice.oneIn(2) ? dice.bits() % 100'000 : 0;
        (dice.oneIn(2) ? one.cpuNanoseconds : one.diskWriteBytes) *= dice.oneIn(40) ? 0U : 1U;
        one.parentPid = dice.oneIn(60) ? dice.upTo(20) : one.parentPid;
    }
    if (dice.oneIn(4)) {
        std::ranges::shuffle(list, dice.engine());
    }
}

TEST(ProcessActivityTest, AddsUpWhatThePlainWayAddsUp) {
    std::size_t told = 0;
    for (unsigned seed = 0; seed < 60; ++seed) {
        Dice dice(seed);
        ProcessActivity activity;
        ActivityModel model;
        List list;
        Date date = kStart;
        ASSERT_EQ(activity.windowSeconds(), std::nullopt);
        const double pace = dice.pick({0.5, 1, 4.75, 5, 7, 12.5, 15});
        for (int i = 0; i < 250; ++i) {
            date = date + (dice.oneIn(80) ? dice.pick({15.001, 0, -2}) : pace);
            change(list, dice);
            activity.add(date, list);
            model.add(date, list);
            ASSERT_NEAR(*activity.windowSeconds(), model.window(), 1e-9) << seed << ", " << i;
            const auto sources = activity.sources(), expected = model.sources();
            ASSERT_EQ(sources.size(), expected.size()) << "seed " << seed << ", list " << i;
            told += sources.size();
            for (std::size_t at = 0; at < sources.size(); ++at) {
                const DiagnosticSource &one = sources[at], &other = expected[at];
                ASSERT_EQ(std::pair(one.id, one.name), std::pair(other.id, other.name)) << seed;
                const auto near = [](std::optional<double> a, std::optional<double> b) {
                    return a.has_value() == b.has_value() && (!a || std::abs(*a - *b) <= 1e-6 * *b);
                };
                ASSERT_TRUE(near(one.averageCPU, other.averageCPU) &&
                            near(one.currentCPU, other.currentCPU) &&
                            near(one.diskSeconds, other.diskSeconds) &&
                            near(one.averageDiskRate, other.averageDiskRate) &&
                            near(one.currentDiskRate, other.currentDiskRate))
                    << "seed " << seed << ", list " << i << ", " << one.id;
            }
        }
    }
    EXPECT_GT(told, 20000);
}

// On the machine that the tests run on: a child that works is folded into its parent.
TEST(ProcessListTest, ShowsARealChildAtWork) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        for (volatile bool work = true; work;) {
        }
    }
    ProcessList list;
    ProcessActivity activity;
    std::uint64_t before = 0, after = 0;
    // Its processor time is counted in ticks of some milliseconds; look until one has passed.
    for (int look = 0; look < 1000 && after <= before; ++look) {
        const auto processes = list.read();
        ASSERT_TRUE(processes);
        const auto worker = std::ranges::find(*processes, child, &ProcessSample::pid);
        const auto self = std::ranges::find(*processes, getpid(), &ProcessSample::pid);
        ASSERT_TRUE(worker != processes->end() && self != processes->end());
        EXPECT_EQ(worker->parentPid, getpid());
        EXPECT_GE(worker->started, self->started);
        EXPECT_EQ(worker->name, self->name);
        EXPECT_NE(worker->name, "");
        (look == 0 ? before : after) = worker->cpuNanoseconds;
        activity.add(Date{look * 0.1}, *processes);
    }
    EXPECT_GT(after, before);
    EXPECT_GE(list.inaccessible(), 0);
    double used = 0;
    for (const auto& source : activity.sources()) {
        used += source.averageCPU;
        EXPECT_FALSE(source.id.starts_with(std::to_string(child) + "-")) << "it leads nothing";
    }
    EXPECT_GT(used, 0);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    const auto left = list.read();
    EXPECT_EQ(std::ranges::find(*left, child, &ProcessSample::pid), left->end());
}

}  // namespace
}  // namespace ferovane
