#include "helper/process_guardian.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <thread>
#include <utility>
#include <vector>

#include "core/model/number_text.h"
#include "core/model/scope_error.h"
#include "helper/guardian_watch.h"

namespace ferovane {
namespace {

constexpr const char* kNoGuardian = "无法启动风扇守护进程，未接管风扇";

// A released guardian is gone within a millisecond or two, unless the machine is very busy.
constexpr std::chrono::milliseconds kReleasePause{1};
constexpr std::chrono::seconds kReleasePatience{1};

// So is one that is started ready.
constexpr int kStandPatienceMilliseconds = 5000;

// Every descriptor this process has open; the child closes them one by one, because asking for the
// list, or trying every number there could be, is nothing to do after a fork.
std::vector<int> openDescriptors() {
    std::vector<int> descriptors;
    for (const auto& entry : std::filesystem::directory_iterator("/dev/fd")) {
        if (const auto number = parseInt32(entry.path().filename().string())) {
            descriptors.push_back(*number);
        }
    }
    return descriptors;
}

bool openPipe(int (&ends)[2]) {
    if (::pipe(ends) != 0) {
        return false;
    }
    for (const int end : ends) {
        ::fcntl(end, F_SETFD, FD_CLOEXEC);
    }
    return true;
}

void closePipe(const int (&ends)[2]) {
    ::close(ends[0]);
    ::close(ends[1]);
}

// The guardian closes all that it inherits, once it is out of the user's reach; until then he could
// stop it for good. So the end of this pipe tells that it stands, or has ended.
bool standsSoon(int pipe) {
    pollfd waiting{pipe, POLLIN, 0};
    int ready = -1;
    do {
        ready = ::poll(&waiting, 1, kStandPatienceMilliseconds);
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

// A guardian that somebody has stopped does not end, and is left to itself then: whoever waits for
// the helper must not wait for that.
void reapSoon(pid_t guardian) {
    const auto deadline = std::chrono::steady_clock::now() + kReleasePatience;
    while (::waitpid(guardian, nullptr, WNOHANG) == 0 &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(kReleasePause);
    }
}

}  // namespace

ProcessGuardian::ProcessGuardian(std::string helperPath) : helperPath_(std::move(helperPath)) {
    start();
}

ProcessGuardian::~ProcessGuardian() {
    release();
}

void ProcessGuardian::start() {
    ::signal(SIGPIPE, SIG_IGN);  // a guardian that was killed must not take the helper along
    int ends[2] = {-1, -1};
    int standing[2] = {-1, -1};
    if (!openPipe(ends)) {
        throw ScopeError(kNoGuardian);
    }
    if (!openPipe(standing)) {
        closePipe(ends);
        throw ScopeError(kNoGuardian);
    }
    GuardianPlan plan{ends[0], {}, helperPath_.c_str()};
    try {
        plan.descriptors = openDescriptors();
        std::erase(plan.descriptors, ends[0]);
        pid_ = ::fork();
    } catch (const std::exception&) {
        pid_ = -1;
    }
    if (pid_ == 0) {
        watchOverFans(plan);
    }
    ::close(ends[0]);
    ::close(standing[1]);
    pipe_ = ends[1];
    const bool stands = pid_ > 0 && standsSoon(standing[0]);
    ::close(standing[0]);
    if (!stands) {
        abandon();
        throw ScopeError(kNoGuardian);
    }
}

// What never stood has no fan to hand back.
void ProcessGuardian::abandon() noexcept {
    ::close(pipe_);
    pipe_ = -1;
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        reapSoon(pid_);
    }
    pid_ = -1;
}

// Closing the pipe releases the guardian. One that has nothing to do ends at once and is waited
// for; one that has must not be, since it waits for the helper to end.
void ProcessGuardian::release() noexcept {
    if (pid_ < 0) {
        return;  // the last attempt to start one failed
    }
    ::close(pipe_);
    pipe_ = -1;
    if (!held_) {
        reapSoon(pid_);
    }
    pid_ = -1;
}

bool ProcessGuardian::tell(char word) noexcept {
    ssize_t written = -1;
    do {
        written = ::write(pipe_, &word, 1);
    } while (written < 0 && errno == EINTR);
    return written == 1;
}

void ProcessGuardian::fansHeld() {
    if (!tell(kGuardianHeld)) {
        held_ = false;  // by the one that was killed; what is held becomes the next one's
        release();
        start();
        if (!tell(kGuardianHeld)) {
            throw ScopeError(kNoGuardian);
        }
    }
    held_ = true;
}

void ProcessGuardian::fansReturned() noexcept {
    // A guardian that is gone has nobody to tell.
    tell(kGuardianReturned);
    held_ = false;
}

}  // namespace ferovane
