// The guardian as a process, with a file in the helper's place that does nothing.
#include "helper/process_guardian.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "core/model/scope_error.h"
#include "shim/fv.h"

namespace ferovane::testing {
namespace {

constexpr const char* kNothing = "/bin/true";

std::vector<pid_t> livingChildren() {
    std::vector<FVProcessSnapshot> processes(20000);
    const int count =
        fv_process_snapshot(processes.data(), static_cast<int>(processes.size()), nullptr);
    std::vector<pid_t> children;
    for (int i = 0; i < count; ++i) {
        const FVProcessSnapshot& process = processes[static_cast<std::size_t>(i)];
        if (process.parent_pid == static_cast<std::uint32_t>(::getpid())) {
            children.push_back(process.pid);
        }
    }
    return children;
}

pid_t onlyChild() {
    const std::vector<pid_t> children = livingChildren();
    if (children.size() != 1) {
        throw std::runtime_error(std::to_string(children.size()) + " children");
    }
    return children.front();
}

// Kills a child without reaping it.
void killAndLeave(pid_t child) {
    ::kill(child, SIGKILL);
    siginfo_t info{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0);
}

bool isReaped(pid_t child) {
    return ::waitpid(child, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

std::set<int> openDescriptors() {
    std::set<int> open;
    for (int descriptor = 0; descriptor < 1024; ++descriptor) {
        if (::fcntl(descriptor, F_GETFD) != -1) {
            open.insert(descriptor);
        }
    }
    return open;
}

// While it lives, this process can open only so many descriptors more.
class RoomForDescriptors {
public:
    explicit RoomForDescriptors(int count) {
        ::getrlimit(RLIMIT_NOFILE, &before_);
        int end = 1024;  // no descriptor of a test has a larger number
        while (::fcntl(end - 1, F_GETFD) == -1) {
            --end;
        }
        for (int filler = ::dup(0); filler != -1; filler = ::dup(0)) {
            if (filler >= end) {
                ::close(filler);
                break;
            }
            fillers_.push_back(filler);
        }
        const rlimit now{static_cast<rlim_t>(end + count), before_.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &now);
    }
    ~RoomForDescriptors() {
        ::setrlimit(RLIMIT_NOFILE, &before_);
        for (const int filler : fillers_) {
            ::close(filler);
        }
    }
    RoomForDescriptors(const RoomForDescriptors&) = delete;
    RoomForDescriptors& operator=(const RoomForDescriptors&) = delete;

private:
    rlimit before_{};
    std::vector<int> fillers_;
};

TEST(ProcessGuardianTest, OneThatWasKilledIsReplacedAndReapedAlsoWhileAFanIsLeftHeld) {
    for (const bool returned : {true, false}) {
        ProcessGuardian guardian(kNothing);
        guardian.fansHeld();
        if (returned) {
            guardian.fansReturned();
        }
        const pid_t first = onlyChild();
        killAndLeave(first);
        guardian.fansHeld();
        EXPECT_NE(onlyChild(), first);
        EXPECT_TRUE(isReaped(first)) << returned;
        guardian.fansReturned();
    }
    EXPECT_TRUE(livingChildren().empty());
}

TEST(ProcessGuardianTest, WithoutAReplacementNoFanMayBeTakenAndNoOtherChildIsWaitedFor) {
    std::optional<ProcessGuardian> guardian(kNothing);
    killAndLeave(onlyChild());
    {
        // With the end of the pipe that becomes free there is room for the new pipes and no more.
        const RoomForDescriptors three(3);
        EXPECT_THROW(guardian->fansHeld(), ScopeError);
        EXPECT_THROW(guardian->fansHeld(), ScopeError) << "nor at the next attempt";
    }
    const pid_t tool = ::fork();
    if (tool == 0) {
        ::_exit(7);
    }
    siginfo_t info{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(tool), &info, WEXITED | WNOWAIT), 0);
    guardian.reset();
    int status = 0;
    EXPECT_EQ(::waitpid(tool, &status, 0), tool) << "its exit status belongs to who started it";
    EXPECT_EQ(WEXITSTATUS(status), 7);
}

TEST(ProcessGuardianTest, CostsOneDescriptorThatNoToolInherits) {
    const std::set<int> before = openDescriptors();
    const ProcessGuardian guardian(kNothing);
    std::set<int> added = openDescriptors();
    for (const int descriptor : before) {
        added.erase(descriptor);
    }
    ASSERT_EQ(added.size(), 1U);
    EXPECT_EQ(::fcntl(*added.begin(), F_GETFD), FD_CLOEXEC);
}

TEST(ProcessGuardianTest, OneThatIsStoppedDoesNotKeepTheHelper) {
    std::optional<ProcessGuardian> guardian(kNothing);
    const pid_t stopped = onlyChild();
    ::kill(stopped, SIGSTOP);
    std::promise<void> released;
    std::thread rescue([stopped, done = released.get_future()] {
        done.wait_for(std::chrono::seconds(20));
        ::kill(stopped, SIGCONT);
    });
    const auto start = std::chrono::steady_clock::now();
    guardian.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    released.set_value();
    rescue.join();
    ::waitpid(stopped, nullptr, 0);
}

bool holdsOneDescriptor(pid_t process) {
    const std::filesystem::directory_iterator held("/proc/" + std::to_string(process) + "/fd");
    return std::distance(begin(held), end(held)) == 1;
}

TEST(ProcessGuardianTest, StandsApartFromTheHelperAndItsSignals) {
    if (!std::filesystem::exists("/proc/self/fd")) {
        GTEST_SKIP() << "this system does not tell the descriptors of another process";
    }
    const ProcessGuardian guardian(kNothing);
    const pid_t child = onlyChild();
    const auto start = std::chrono::steady_clock::now();
    while (!holdsOneDescriptor(child)) {
        ASSERT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    }
    EXPECT_EQ(::getsid(child), child);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGPIPE, SIGTSTP, SIGTTIN, SIGTTOU,
                             SIGUSR1, SIGUSR2, SIGALRM, SIGXCPU, SIGXFSZ}) {
        ::kill(child, signal);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    siginfo_t info{};
    const int changes = WEXITED | WSTOPPED | WNOHANG | WNOWAIT;
    EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(child), &info, changes), 0);
    EXPECT_EQ(info.si_pid, 0) << "ended or stopped by a signal";
}

// A file in the helper's place, called with its own path as $0.
class HelperScript {
public:
    explicit HelperScript(const std::string& text) {
        std::ofstream(path_) << "#!/bin/sh\n" << text;
        ::chmod(path_.c_str(), 0755);
    }
    ~HelperScript() {
        std::remove(path_.c_str());
        std::remove(callsPath().c_str());
    }
    HelperScript(const HelperScript&) = delete;
    HelperScript& operator=(const HelperScript&) = delete;

    const std::string& path() const { return path_; }
    // What the script has written to "$0.calls".
    std::string calls() const {
        std::ifstream file(callsPath());
        return {std::istreambuf_iterator<char>(file), {}};
    }

private:
    std::string callsPath() const { return path_ + ".calls"; }

    std::string path_ = "/tmp/ferovane-hand-back-" + std::to_string(::getpid());
};

TEST(ProcessGuardianTest, OneThatHasNothingToHandBackEndsWithTheHelper) {
    const HelperScript script("exit 1\n");  // would be tried again
    for (const bool taken : {false, true}) {
        std::optional<ProcessGuardian> guardian(script.path());
        if (taken) {
            guardian->fansHeld();
            guardian->fansReturned();
        }
        guardian.reset();
        EXPECT_TRUE(livingChildren().empty()) << taken;
    }
}

// Who has no process but the caller's: a limit of processes counts those of all the machine.
uid_t aUserOfMyOwn() {
    return 1'000'000 + static_cast<uid_t>(::getpid());
}

constexpr int kRefused = 8;
constexpr unsigned kPatienceSeconds = 10;

// How the guardian of a helper ends that may have only so many processes and leaves a fan held.
int endOfGuardianAmong(rlim_t processes, const std::string& helperPath) {
    const pid_t helper = ::fork();
    if (helper == 0) {
        ::alarm(kPatienceSeconds);
        const rlimit limit{processes, processes};
        ::setrlimit(RLIMIT_NPROC, &limit);
        int status = 0;
        if (::setuid(aUserOfMyOwn()) != 0) {
            ::_exit(1);
        }
        std::optional<ProcessGuardian> guardian;
        try {
            guardian.emplace(helperPath);
        } catch (const ScopeError&) {
            ::_exit(kRefused);
        }
        guardian->fansHeld();
        guardian.reset();
        ::wait(&status);
        ::_exit(WIFEXITED(status) ? WEXITSTATUS(status) : 2);
    }
    int status = 0;
    ::waitpid(helper, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

constexpr std::chrono::milliseconds kTimeToDie{2};

// Whether a user can kill the guardian of a helper that he authorised as soon as it is made. He has
// no process but these two.
bool canBeKilledBy(uid_t user) {
    ProcessGuardian guardian(kNothing);
    bool killed = ::seteuid(user) != 0;
    ::kill(-1, SIGKILL);  // spares its sender
    killed = ::seteuid(0) != 0 || killed;
    std::this_thread::sleep_for(kTimeToDie);
    siginfo_t ended{};
    ::waitid(P_ALL, 0, &ended, WEXITED | WNOHANG | WNOWAIT);
    return killed || ended.si_pid != 0;
}

TEST(ProcessGuardianTest, IsOutOfTheUsersReachOnceItIsMade) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to become somebody else";
    }
    const pid_t helper = ::fork();
    if (helper == 0) {
        ::alarm(kPatienceSeconds);
        const uid_t user = aUserOfMyOwn();
        bool killed = ::setreuid(user, 0) != 0;
        for (int attempt = 0; attempt < 50 && !killed; ++attempt) {
            killed = canBeKilledBy(user);
        }
        ::_exit(killed ? 1 : 0);
    }
    int status = 0;
    ::waitpid(helper, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST(ProcessGuardianTest, WhereNoProcessMayBeStartedItRefusesOrHandsBackItself) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to become somebody else";
    }
    const HelperScript script(
        "for d in 3 4 5 6 7 8 9; do\n"
        "    test -e /proc/$$/fd/$d && exit 1  # inherited\n"
        "done\n"
        "test \"$*\" = auto && exit 7\n");
    EXPECT_EQ(endOfGuardianAmong(1, script.path()), kRefused);
    EXPECT_EQ(endOfGuardianAmong(2, script.path()), 7);
}

TEST(ProcessGuardianTest, TriesUntilAHandBackHasSucceededAndNoLonger) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to become somebody else";
    }
    const HelperScript script(
        "echo \"$*\" >> \"$0.calls\"\n"
        "case $(wc -l < \"$0.calls\") in\n"
        "    *1) exit 7 ;;\n"
        "    *2) kill -ALRM $$; exit 0 ;;\n"
        "    *3) exit 0 ;;\n"
        "    *) exit 9 ;;\n"
        "esac\n");
    EXPECT_EQ(endOfGuardianAmong(RLIM_INFINITY, script.path()), 0);
    EXPECT_EQ(script.calls(), "auto\nauto\nauto\n");
}

}  // namespace
}  // namespace ferovane::testing
