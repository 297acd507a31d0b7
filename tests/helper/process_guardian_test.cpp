// The guardian as a process of this one's.
#include "helper/process_guardian.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "shim/fv.h"
#include "tests/support/failure_text.h"

namespace ferovane::testing {
namespace {

constexpr pid_t kNoGroup = 0x7fffffff;  // larger than any

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

// Kills every child without reaping it.
void killChildren() {
    for (const pid_t child : livingChildren()) {
        ::kill(child, SIGKILL);
        siginfo_t info{};
        ::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT);
    }
}

bool isReaped(pid_t child) {
    return ::waitpid(child, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

class ProcessGuardianTest : public ::testing::Test {
protected:
    ProcessGuardianTest() { ::signal(SIGPIPE, SIG_IGN); }
    ~ProcessGuardianTest() override {
        guardian_.reset();
        EXPECT_TRUE(livingChildren().empty());
    }
    void start() {
        guardian_.emplace([this] { return std::string(path_); });
    }

    // The helper stands beside this program, and is asked for nothing but to guard.
    const std::string helper_ = [] {
        char own[4096];
        EXPECT_EQ(fv_executable_path(own, sizeof own), 0);
        return std::string(own).substr(0, std::string(own).rfind('/')) + "/FerovaneHelper";
    }();
    std::atomic<const char*> path_ = helper_.c_str();  // asked for by another thread
    std::optional<ProcessGuardian> guardian_;
};

TEST_F(ProcessGuardianTest, WithoutOneNoFanMayBeTakenNorHeldAndNoToolMayRun) {
    const std::string none = "无法启动风扇守护进程，未接管风扇";
    for (const char* unfit : {"", "/no/such/file", "/bin/true"}) {
        path_ = unfit;  // the last is a program, but does not say that it stands
        EXPECT_EQ(failureOf([this] { start(); }), none) << unfit;
        path_ = helper_.c_str();
        start();
        path_ = unfit;
        killChildren();
        EXPECT_EQ(failureOf([this] { guardian_->fansHeld(); }), none);
        EXPECT_EQ(failureOf([this] { guardian_->toolStarted(kNoGroup); }),
                  "无法启动守护进程，未运行系统工具");
        path_ = helper_.c_str();
        guardian_->fansHeld();
        path_ = unfit;
        killChildren();
        EXPECT_EQ(failureOf([this] { guardian_->fansHeld(); }),
                  "风扇守护进程意外结束且无法重新启动，已停止风扇控制");
        guardian_->fansReturned();  // once the thread that tries to replace it is through
        EXPECT_TRUE(livingChildren().empty());
        guardian_.reset();
    }
}

TEST_F(ProcessGuardianTest, WhileFansAreHeldNoFailedStartIsTheLast) {
    start();
    guardian_->fansHeld();
    path_ = "";
    killChildren();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    path_ = helper_.c_str();
    const double began = fv_uptime_seconds();
    while (livingChildren().empty() && fv_uptime_seconds() - began < 5) {
        std::this_thread::yield();
    }
    EXPECT_FALSE(livingChildren().empty());
    guardian_->fansReturned();
}

TEST_F(ProcessGuardianTest, OneThatIsStoppedNeitherKeepsTheHelperNorStaysItsGuardian) {
    const double began = fv_uptime_seconds();
    start();
    const pid_t stopped = livingChildren().front();
    ::kill(stopped, SIGSTOP);
    for (int lease = 0; lease < 2000 && !isReaped(stopped); ++lease) {
        guardian_->fansHeld();
        guardian_->fansReturned();
    }
    EXPECT_TRUE(isReaped(stopped)) << "it could not be told any more";
    guardian_->fansHeld();
    guardian_->fansReturned();
    const pid_t second = livingChildren().front();
    ::kill(second, SIGSTOP);
    guardian_.reset();
    EXPECT_LT(fv_uptime_seconds() - began, 15);
    ::kill(second, SIGCONT);
    ::waitpid(second, nullptr, 0);
}

TEST_F(ProcessGuardianTest, EndsTheToolThatRunsAndNoOther) {
    for (const bool ended : {false, true}) {
        start();
        const char* const words[] = {"sleep", "60", nullptr};
        std::int32_t tool = 0;
        ASSERT_EQ(fv_spawn_tool("/bin/sleep", words, STDERR_FILENO, &tool), 0);
        guardian_->toolStarted(tool);
        EXPECT_NE(failureOf([this] { guardian_->toolStarted(kNoGroup); }), "") << "one at a time";
        if (ended) {
            guardian_->toolEnded();
        }
        guardian_.reset();  // waits for the guardian's end
        ::kill(tool, ended ? SIGTERM : 0);
        ::kill(tool, SIGCONT);
        int status = 0;
        EXPECT_EQ(::waitpid(tool, &status, 0), tool);
        EXPECT_EQ(WTERMSIG(status), ended ? SIGTERM : SIGKILL);
    }
}

// The lease's thread, the requests' thread and somebody who kills.
TEST_F(ProcessGuardianTest, IsReplacedOnceWhicheverThreadMissesIt) {
    start();
    std::atomic<bool> over = false;
    std::thread lease([&] {
        while (!over) {
            failureOf([this] { guardian_->fansHeld(); });  // the new one may be killed as well
            guardian_->fansReturned();
        }
    });
    std::thread requests([&] {
        while (!over) {
            if (failureOf([this] { guardian_->toolStarted(kNoGroup); }).empty()) {
                guardian_->toolEnded();
            }
        }
    });
    for (int kill = 0; kill < 8; ++kill) {
        killChildren();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    over = true;
    lease.join();
    requests.join();
    guardian_->fansHeld();
    EXPECT_EQ(livingChildren().size(), 1U);
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), 0) << "one that was killed is not reaped";
    guardian_->fansReturned();
}

}  // namespace
}  // namespace ferovane::testing
