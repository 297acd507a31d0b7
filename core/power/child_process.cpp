#include "core/power/child_process.h"

#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <string>

#include "core/model/scope_error.h"

namespace ferovane {

namespace {

// A wait is counted in slices: if the machine sleeps in one, that costs the child one slice of its
// time and not hours.
constexpr double kSliceSeconds = 1;

// A killed process is gone in well under a millisecond unless the kernel holds it.
constexpr double kKilledSeconds = 1;

void awaitEnd(std::int32_t pid) {
    siginfo_t info{};
    while (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
    }
}

std::optional<std::int32_t> reap(std::int32_t pid) {
    int status = 0;
    pid_t reaped = 0;
    do {
        reaped = waitpid(pid, &status, 0);
    } while (reaped < 0 && errno == EINTR);
    if (reaped != pid) {
        return std::nullopt;
    }
    return WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace

struct ChildProcess::Watch {
    std::mutex mutex;
    std::condition_variable changed;
    bool ended = false;
    bool abandoned = false;  // nobody waits any more: the watcher reaps
};

ChildProcess::ChildProcess(std::int32_t pid) : pid_(pid) {
    try {
        watch_ = std::make_shared<Watch>();
        watcher_ = std::thread([pid, watch = watch_] {
            awaitEnd(pid);
            const std::lock_guard lock(watch->mutex);
            watch->ended = true;
            watch->changed.notify_all();
            if (watch->abandoned) {
                reap(pid);
            }
        });
    } catch (const std::exception&) {
        signalGroup(SIGKILL);
        reap(pid);
        throw ScopeError("无法监视命令");
    }
}

ChildProcess::~ChildProcess() {
    finish();
}

bool ChildProcess::endsWithin(double seconds) {
    std::unique_lock lock(watch_->mutex);
    for (double left = seconds; left > 0 && !watch_->ended; left -= kSliceSeconds) {
        const std::chrono::duration<double> slice(std::min(left, kSliceSeconds));
        watch_->changed.wait_for(lock, slice, [&] { return watch_->ended; });
    }
    return watch_->ended;
}

void ChildProcess::signalGroup(int signal) const {
    kill(-pid_, signal);
}

std::optional<std::int32_t> ChildProcess::finish() {
    if (!watcher_.joinable()) {
        return std::nullopt;
    }
    signalGroup(SIGKILL);
    endsWithin(kKilledSeconds);
    {
        const std::lock_guard lock(watch_->mutex);
        watch_->abandoned = !watch_->ended;
    }
    if (watch_->abandoned) {
        watcher_.detach();
        return std::nullopt;
    }
    watcher_.join();
    return reap(pid_);
}

}  // namespace ferovane
