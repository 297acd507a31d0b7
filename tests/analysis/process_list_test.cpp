#include "core/analysis/process_list.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "core/analysis/process_activity.h"

namespace ferovane {
namespace {

const ProcessSample* find(std::span<const ProcessSample> list, pid_t pid) {
    const auto found = std::ranges::find(list, pid, &ProcessSample::pid);
    return found == list.end() ? nullptr : &*found;
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
    std::uint64_t before = 0;
    std::uint64_t after = 0;
    // Its processor time is counted in ticks of some milliseconds; look until one has passed.
    for (int look = 0; look < 1000 && after <= before; ++look) {
        const auto processes = list.read();
        ASSERT_TRUE(processes);
        const ProcessSample* worker = find(*processes, child);
        const ProcessSample* self = find(*processes, getpid());
        ASSERT_TRUE(worker != nullptr && self != nullptr);
        EXPECT_EQ(worker->parentPid, getpid());
        EXPECT_GE(worker->started, self->started);
        EXPECT_FALSE(worker->name.empty());
        (look == 0 ? before : after) = worker->cpuNanoseconds;
        activity.add(Date{look * 0.1}, *processes);
    }
    EXPECT_GT(after, before);
    double used = 0;
    for (const auto& source : activity.sources()) {
        used += source.averageCPU;
        EXPECT_FALSE(source.id.starts_with(std::to_string(child) + "-")) << "it leads nothing";
    }
    EXPECT_GT(used, 0);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(find(*list.read(), child), nullptr);
}

}  // namespace
}  // namespace ferovane
