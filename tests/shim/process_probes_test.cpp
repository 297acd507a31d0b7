#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "shim/fv.h"
#include "tests/shim/child_process.h"

namespace {

constexpr int kRoomForAll = 20'000;
constexpr uid_t kNobody = 65534;

std::vector<FVProcessSnapshot> snapshotOfAll() {
    std::vector<FVProcessSnapshot> entries(kRoomForAll);
    const int count = fv_process_snapshot(entries.data(), kRoomForAll, nullptr);
    entries.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
    return entries;
}

std::optional<FVProcessSnapshot> entryOf(pid_t pid) {
    for (const FVProcessSnapshot& entry : snapshotOfAll()) {
        if (entry.pid == pid) {
            return entry;
        }
    }
    return std::nullopt;
}

int waitForEver() {
    for (;;) {
        pause();
    }
}

double processorSeconds() {
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

TEST(ProcessSnapshotTest, DescribesARealChild) {
    tests::Pipe ready;
    constexpr double kBusySeconds = 0.1;
    constexpr std::size_t kTouchedBytes = 32u << 20;
    tests::ChildProcess child([&] {
        prctl(PR_SET_NAME, "fv child");
        const std::vector<char> touched(kTouchedBytes, 'x');
        while (processorSeconds() < kBusySeconds) {
        }
        ready.tell();
        return waitForEver() + touched[0];
    });
    ready.await();
    const auto entry = entryOf(child.pid());
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->parent_pid, static_cast<std::uint32_t>(getpid()));
    EXPECT_EQ(entry->uid, geteuid());
    EXPECT_STREQ(entry->name, "fv child");
    EXPECT_GE(entry->cpu_ns, 90'000'000u);
    EXPECT_LT(entry->cpu_ns, 10'000'000'000u);
    EXPECT_GE(entry->memory_bytes, kTouchedBytes);

    const auto self = entryOf(getpid());
    ASSERT_TRUE(self);
    EXPECT_GE(entry->started, self->started);
    const auto again = entryOf(child.pid());
    ASSERT_TRUE(again);
    EXPECT_EQ(again->started, entry->started);
}

TEST(ProcessSnapshotTest, StopsAtItsCapacityAndRefusesNone) {
    std::vector<FVProcessSnapshot> entries(2);
    int inaccessible = 77;
    EXPECT_EQ(fv_process_snapshot(entries.data(), 0, &inaccessible), -1);
    EXPECT_EQ(fv_process_snapshot(entries.data(), -1, &inaccessible), -1);
    EXPECT_EQ(fv_process_snapshot(nullptr, 1, &inaccessible), -1);
    EXPECT_EQ(inaccessible, 77);

    entries[1].pid = -5;
    EXPECT_EQ(fv_process_snapshot(entries.data(), 1, &inaccessible), 1);
    EXPECT_GE(entries[0].pid, 1);
    EXPECT_EQ(entries[1].pid, -5);
    EXPECT_GE(inaccessible, 0);
    EXPECT_LT(inaccessible, 77);
}

TEST(ProcessSnapshotTest, AnEndedChildIsNotReported) {
    tests::ChildProcess child([] { return 0; });
    while (!child.ended()) {
        usleep(1'000);
    }
    EXPECT_FALSE(entryOf(child.pid()));  // a zombie still
    EXPECT_FALSE(fv_owner_alive(child.pid(), geteuid()));
    const pid_t pid = child.pid();
    child.exitStatus();
    EXPECT_FALSE(fv_owner_alive(pid, geteuid()));
}

TEST(ProcessSnapshotTest, CountsWhatItMayNotRead) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to give up root";
    }
    const auto asNobody = [] {
        const pid_t parent = getppid();
        std::vector<FVProcessSnapshot> entries(kRoomForAll);
        int inaccessible = 0;
        if (setgid(kNobody) != 0 || setuid(kNobody) != 0 || fv_owner_alive(parent, 0)) {
            return 1;
        }
        const int count = fv_process_snapshot(entries.data(), kRoomForAll, &inaccessible);
        for (int index = 0; index < count; ++index) {
            if (entries[static_cast<std::size_t>(index)].uid != kNobody) {
                return 2;
            }
        }
        return count < 1 || inaccessible < 1 ? 3 : 0;
    };
    EXPECT_EQ(tests::exitStatusOf(asNobody), 0);
}

TEST(OwnerAliveTest, NeedsTheProcessAndItsUser) {
    EXPECT_TRUE(fv_owner_alive(getpid(), geteuid()));
    EXPECT_FALSE(fv_owner_alive(getpid(), geteuid() + 1));
    for (const int nobody : {-1, 0, INT32_MAX}) {
        EXPECT_FALSE(fv_owner_alive(nobody, geteuid())) << nobody;
    }
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to become somebody else";
    }
    tests::Pipe ready;
    tests::ChildProcess child([&] {
        if (setuid(kNobody) == 0) {
            ready.tell();
        }
        return waitForEver();
    });
    ready.await();
    EXPECT_TRUE(fv_owner_alive(child.pid(), kNobody));
    EXPECT_FALSE(fv_owner_alive(child.pid(), 0));
}

}  // namespace
