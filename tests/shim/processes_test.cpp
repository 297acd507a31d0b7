// Processes as the shim sees them, and the signals that stop this one.
#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <limits>
#include <optional>
#include <thread>
#include <vector>

#include "shim/fv.h"
#include "tests/shim/child_process.h"

namespace {

constexpr uid_t kNobody = 65534;

std::vector<FVProcessSnapshot> snapshotOfAll(int* inaccessible = nullptr) {
    std::vector<FVProcessSnapshot> entries(20'000);
    const int count = fv_process_snapshot(entries.data(), 20'000, inaccessible);
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

TEST(ProcessSnapshotTest, DescribesARealChildUntilItHasEnded) {
    tests::Pipe ready, end;
    constexpr std::size_t kTouchedBytes = 32U << 20;
    tests::ChildProcess child([&] {
        prctl(PR_SET_NAME, "fv child");
        const std::vector<char> touched(kTouchedBytes, 'x');
        timespec used{};
        while (used.tv_sec == 0 && used.tv_nsec < 100'000'000) {
            clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
        }
        ready.tell();
        end.await();
        return touched[0] - 'x';
    });
    ready.await();
    const auto entry = entryOf(child.pid()), self = entryOf(getpid()), again = entryOf(child.pid());
    ASSERT_TRUE(entry && self && again);
    EXPECT_EQ(entry->parent_pid, static_cast<std::uint32_t>(getpid()));
    EXPECT_EQ(entry->uid, geteuid());
    EXPECT_STREQ(entry->name, "fv child");
    EXPECT_GE(entry->cpu_ns, 90'000'000U);
    EXPECT_LT(entry->cpu_ns, 10'000'000'000U);
    EXPECT_GE(entry->memory_bytes, kTouchedBytes);
    EXPECT_GE(entry->started, self->started);
    EXPECT_EQ(entry->started, again->started);

    const pid_t pid = child.pid();
    EXPECT_TRUE(fv_owner_alive(pid, geteuid()));
    end.tell();
    while (!child.ended()) {
        usleep(1'000);
    }
    EXPECT_FALSE(entryOf(pid)) << "a zombie still";
    EXPECT_FALSE(fv_owner_alive(pid, geteuid()));
    child.exitStatus();
    EXPECT_FALSE(fv_owner_alive(pid, geteuid()));
}

TEST(ProcessSnapshotTest, StopsAtItsCapacityAndRefusesNone) {
    FVProcessSnapshot entries[2] = {};
    int inaccessible = 77;
    EXPECT_EQ(fv_process_snapshot(entries, 0, &inaccessible), -1);
    EXPECT_EQ(fv_process_snapshot(entries, -1, &inaccessible), -1);
    EXPECT_EQ(fv_process_snapshot(nullptr, 1, &inaccessible), -1);
    EXPECT_EQ(inaccessible, 77);
    EXPECT_EQ(fv_process_snapshot(entries, 1, &inaccessible), 1);
    EXPECT_TRUE(entries[0].pid >= 1 && entries[1].pid == 0);
    EXPECT_TRUE(inaccessible >= 0 && inaccessible < 77) << inaccessible;
}

TEST(OwnerAliveTest, NeedsTheProcessAndItsUser) {
    EXPECT_TRUE(fv_owner_alive(getpid(), geteuid()));
    EXPECT_FALSE(fv_owner_alive(getpid(), geteuid() + 1));
    for (const int nobody : {-1, 0, INT32_MAX}) {
        EXPECT_FALSE(fv_owner_alive(nobody, geteuid())) << nobody;
    }
    // Whoever is not root finds the first process to be somebody else's, and counts what one may
    // not read. Only root has to become such a user first.
    const uid_t user = geteuid() == 0 ? kNobody : geteuid();
    tests::Pipe ready, end;
    tests::ChildProcess child([&] {
        int inaccessible = 0;
        bool right = (geteuid() != 0 || (setgid(user) == 0 && setuid(user) == 0)) &&
                     !fv_owner_alive(1, 0) && !fv_owner_alive(1, user);
        const auto seen = snapshotOfAll(&inaccessible);
        for (const FVProcessSnapshot& entry : seen) {
            right = right && entry.uid == user;
        }
        ready.tell();
        end.await();
        return right && !seen.empty() && inaccessible > 0 ? 0 : 1;
    });
    ready.await();
    EXPECT_TRUE(fv_owner_alive(child.pid(), user));
    EXPECT_FALSE(fv_owner_alive(child.pid(), user + 1));
    end.tell();
    EXPECT_EQ(child.exitStatus(), 0);
}

// ---- Signals that stop -------------------------------------------------------------------------

// Longer than any test waits: a pause of this length ends because of a signal or not at all.
constexpr double kLongSeconds = 60.0;

// A pause looks at the flag at least every 0.2 s; the rest is for a busy host.
constexpr double kSliceAndSlackSeconds = 0.9;

double secondsOf(const std::function<void()>& action) {
    const auto start = std::chrono::steady_clock::now();
    action();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Whoever starts a root helper may have done so with signals blocked or ignored.
TEST(StopSignalsTest, SetAFlagAndEndAPauseAndABlockingRead) {
    for (const int stop : {SIGTERM, SIGINT, SIGHUP}) {
        tests::Pipe ready, silent;
        tests::ChildProcess child([&] {
            sigset_t all;
            sigfillset(&all);
            sigprocmask(SIG_BLOCK, &all, nullptr);
            signal(stop, SIG_IGN);
            fv_install_stop_handlers();
            fv_install_stop_handlers();
            const bool before = fv_should_stop();
            ready.tell();
            char byte = 0;
            const bool interrupted = read(silent.ends[0], &byte, 1) == -1 && errno == EINTR;
            return !before && interrupted && fv_pause(kLongSeconds) && fv_should_stop() ? 0 : 1;
        });
        ready.await();
        // Sent again and again, as the first may come before the child waits.
        for (int attempt = 0; attempt < 1'000 && !child.ended(); ++attempt) {
            kill(child.pid(), stop);
            usleep(10'000);
        }
        ASSERT_TRUE(child.ended()) << stop;
        EXPECT_EQ(child.exitStatus(), 0) << stop;
    }
}

TEST(PauseTest, LastsItsTimeThroughASignalThatIsNotAStop) {
    EXPECT_EQ(tests::exitStatusOf([] {
                  signal(SIGALRM, [](int) {});
                  ualarm(20'000, 20'000);
                  bool stopped = true;
                  const double seconds = secondsOf([&] { stopped = fv_pause(0.25); });
                  return !stopped && seconds >= 0.25 ? 0 : 1;
              }),
              0);
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    for (const double nothing : {0.0, -1.0, -kInfinity, kInfinity - kInfinity}) {
        bool stopped = true;
        EXPECT_LT(secondsOf([&] { stopped = fv_pause(nothing); }), 0.1) << nothing;
        EXPECT_FALSE(stopped) << nothing;
    }
}

// A signal that another thread receives interrupts nobody's sleep: the pause must look by itself.
TEST(PauseTest, NoticesASignalThatAnotherThreadReceived) {
    EXPECT_EQ(tests::exitStatusOf([] {
                  fv_install_stop_handlers();
                  bool stopped = false;
                  double seconds = 0;
                  std::thread pausing([&] {
                      sigset_t all;
                      sigfillset(&all);
                      pthread_sigmask(SIG_BLOCK, &all, nullptr);
                      seconds = secondsOf([&] { stopped = fv_pause(kLongSeconds); });
                  });
                  usleep(50'000);
                  raise(SIGTERM);
                  pausing.join();
                  return stopped && seconds < kSliceAndSlackSeconds ? 0 : 1;
              }),
              0);
}

}  // namespace
