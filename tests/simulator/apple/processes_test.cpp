#include <gtest/gtest.h>
#include <libproc.h>
#include <mach/mach_time.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <string_view>
#include <thread>
#include <vector>

#include "tests/simulator/apple/temporary_directory.h"

namespace {

constexpr int kRecordSize = static_cast<int>(PROC_PIDTBSDINFO_SIZE);
constexpr uid_t kNobody = 65534;

// A real child that runs the body and exits with its result; killed and reaped at the latest here.
class Child {
public:
    explicit Child(const std::function<int()>& body) : pid_(fork()) {
        if (pid_ == 0) {
            _exit(body());
        }
    }
    ~Child() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            reap();
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    int pid() const { return pid_; }

    void waitForZombie() const {
        siginfo_t information{};
        waitid(P_PID, static_cast<id_t>(pid_), &information, WEXITED | WNOWAIT);
    }

    // The exit status.
    int reap() {
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = 0;
        return WEXITSTATUS(status);
    }

private:
    pid_t pid_;
};

int sleepForever() {
    for (;;) {
        pause();
    }
}

int usage(int pid, rusage_info_v2& record) {
    return proc_pid_rusage(pid, RUSAGE_INFO_V2, reinterpret_cast<rusage_info_t*>(&record));
}

TEST(ProcessesTest, OwnRecordAndUsageAreTrue) {
    proc_bsdinfo record{};
    ASSERT_EQ(proc_pidinfo(getpid(), PROC_PIDTBSDINFO, 0, &record, sizeof record), kRecordSize);
    EXPECT_EQ(record.pbi_pid, static_cast<std::uint32_t>(getpid()));
    EXPECT_EQ(record.pbi_ppid, static_cast<std::uint32_t>(getppid()));
    EXPECT_EQ(record.pbi_uid, geteuid());
    EXPECT_EQ(record.pbi_pgid, static_cast<std::uint32_t>(getpgrp()));
    EXPECT_LE(
        std::abs(static_cast<double>(record.pbi_start_tvsec) - static_cast<double>(time(nullptr))),
        3600.0);

    rusage_info_v2 used{};
    ASSERT_EQ(usage(getpid(), used), 0);
    EXPECT_GT(used.ri_phys_footprint, 100'000u);
    EXPECT_LT(used.ri_phys_footprint, std::uint64_t{1} << 40);
    EXPECT_LE(used.ri_proc_start_abstime, mach_continuous_time());

    std::array<char, 4096> path{};
    const int length = proc_pidpath(getpid(), path.data(), path.size());
    EXPECT_EQ(path.data(), std::filesystem::read_symlink("/proc/self/exe").string());
    errno = 0;
    EXPECT_EQ(proc_pidpath(getpid(), path.data(), static_cast<std::uint32_t>(length)), 0);
    EXPECT_EQ(errno, ENOMEM);
}

TEST(ProcessesTest, LongNameIsTheProgramFilesAndTheShortOneIsCut) {
    const TemporaryDirectory directory;
    const std::filesystem::path program =
        directory.path() / "a-program-with-a-very-long-name-indeed";
    std::filesystem::copy_file("/bin/sleep", program);
    const Child child([&] { return execl(program.c_str(), program.c_str(), "60", nullptr); });

    proc_bsdinfo record{};
    std::array<char, 32> name{};
    int length = 0;
    // Until the child has become the program it still bears this one's name.
    for (int i = 0; i < 1000 && std::string_view(name.data()).substr(0, 9) != "a-program"; ++i) {
        usleep(1000);
        length = proc_name(child.pid(), name.data(), name.size());
    }
    EXPECT_STREQ(name.data(), "a-program-with-a-very-long-name");
    EXPECT_EQ(length, 31);
    proc_pidinfo(child.pid(), PROC_PIDTBSDINFO, 0, &record, sizeof record);
    EXPECT_STREQ(record.pbi_comm, "a-program-with-");
    EXPECT_STREQ(record.pbi_name, name.data());
    errno = 0;
    EXPECT_EQ(proc_name(child.pid(), name.data(), 31), 0);
    EXPECT_EQ(errno, ENOMEM);
}

TEST(ProcessesTest, RecordBuffersMustBeLargeEnough) {
    proc_bsdinfo record{};
    errno = 0;
    EXPECT_EQ(proc_pidinfo(getpid(), PROC_PIDTBSDINFO, 0, &record, kRecordSize - 1), 0);
    EXPECT_EQ(errno, ENOMEM);

    std::vector<int> pids(1);
    const int size = static_cast<int>(sizeof(int));
    EXPECT_EQ(proc_listpids(PROC_ALL_PIDS, 0, pids.data(), size + 3), size);
    EXPECT_EQ(proc_listpids(PROC_ALL_PIDS, 0, pids.data(), size - 1), 0);
    EXPECT_EQ(proc_listpids(99, 0, nullptr, 0), 0);
}

TEST(ProcessesTest, ListHoldsLivingChildAndLeavesRoomForMore) {
    const Child child(sleepForever);
    const auto needed = static_cast<std::size_t>(proc_listpids(PROC_ALL_PIDS, 0, nullptr, 0));
    std::vector<int> pids(needed);
    const int bytes =
        proc_listpids(PROC_ALL_PIDS, 0, pids.data(), static_cast<int>(pids.size() * sizeof(int)));
    pids.resize(static_cast<std::size_t>(bytes) / sizeof(int));
    // A few processes may have come or gone in between.
    EXPECT_GE(needed / sizeof(int), pids.size() + 10);
    EXPECT_EQ(std::count(pids.begin(), pids.end(), child.pid()), 1);
    EXPECT_EQ(std::count(pids.begin(), pids.end(), getpid()), 1);
}

TEST(ProcessesTest, ThreadIsNoProcess) {
    proc_bsdinfo record{};
    int found = -1;
    std::thread([&] {
        found = proc_pidinfo(gettid(), PROC_PIDTBSDINFO, 0, &record, sizeof record);
    }).join();
    EXPECT_EQ(found, 0);
}

TEST(ProcessesTest, ZombieIsFoundOnRequestOnlyAndAReapedChildNever) {
    Child child([] { return 0; });
    child.waitForZombie();
    const int pid = child.pid();
    proc_bsdinfo record{};
    rusage_info_v2 used{};
    errno = 0;
    EXPECT_EQ(proc_pidinfo(pid, PROC_PIDTBSDINFO, 0, &record, sizeof record), 0);
    EXPECT_EQ(errno, ESRCH);
    constexpr std::uint32_t kZombie = 5;
    EXPECT_EQ(proc_pidinfo(pid, PROC_PIDTBSDINFO, 1, &record, sizeof record), kRecordSize);
    EXPECT_EQ(record.pbi_status, kZombie);

    child.reap();
    EXPECT_EQ(proc_pidinfo(pid, PROC_PIDTBSDINFO, 1, &record, sizeof record), 0);
    errno = 0;
    EXPECT_EQ(usage(pid, used), -1);
    EXPECT_EQ(errno, ESRCH);
}

TEST(ProcessesTest, OtherUsersProcessesNeedRoot) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to become somebody else";
    }
    proc_bsdinfo record{};
    // 0 when both answers are refusals for want of permission.
    const int rootsPid = getpid();
    Child stranger([rootsPid] {
        proc_bsdinfo basic{};
        rusage_info_v2 used{};
        if (setgid(kNobody) != 0 || setuid(kNobody) != 0) {
            return 1;
        }
        if (proc_pidinfo(rootsPid, PROC_PIDTBSDINFO, 0, &basic, sizeof basic) != 0 ||
            errno != EPERM) {
            return 2;
        }
        if (usage(rootsPid, used) != -1 || errno != EPERM) {
            return 3;
        }
        return proc_pidinfo(getpid(), PROC_PIDTBSDINFO, 0, &basic, sizeof basic) == kRecordSize ? 0
                                                                                                : 4;
    });
    stranger.waitForZombie();
    EXPECT_EQ(proc_pidinfo(stranger.pid(), PROC_PIDTBSDINFO, 1, &record, sizeof record),
              kRecordSize);
    EXPECT_EQ(record.pbi_uid, kNobody);
    EXPECT_EQ(stranger.reap(), 0);
}

}  // namespace
