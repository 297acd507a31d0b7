// Real child processes for tests: a forked body, with this process waiting for it.
#pragma once

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "tests/support/pipe.h"

namespace tests {

// Runs body in a forked child and ends that with what it returns. Killed and reaped at the latest
// when this object goes.
class ChildProcess {
public:
    explicit ChildProcess(const std::function<int()>& body) : pid_(fork()) {
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);  // also when a test crashes
            _exit(body());
        }
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            exitStatus();
        }
    }

    pid_t pid() const { return pid_; }

    bool ended() const {
        siginfo_t info{};
        waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT);
        return info.si_pid == pid_;
    }

    // The child's exit status, or minus the signal that ended it. Waits for its end.
    int exitStatus() {
        int status = 0;
        while (waitpid(pid_, &status, 0) < 0) {
        }
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

private:
    pid_t pid_;
};

// What body returns in a child of its own, so that it can change this process for good.
inline int exitStatusOf(const std::function<int()>& body) {
    return ChildProcess(body).exitStatus();
}

using ferovane::testing::Pipe;

}  // namespace tests
