#include "helper/session_watchdog.h"

#include <poll.h>
#include <sys/socket.h>

#include <system_error>
#include <utility>

#include "core/model/scope_error.h"

namespace ferovane {
namespace {

std::thread startThread(std::function<void()> work) {
    try {
        return std::thread(std::move(work));
    } catch (const std::system_error&) {
        throw ScopeError("无法启动会话监视线程");
    }
}

// One socket may be input and output, and its peer may end only what it writes, which poll does not
// tell everywhere.
bool isHalfClosed(int descriptor) {
    char next = 0;
    return ::recv(descriptor, &next, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

}  // namespace

SessionWatchdog::SessionWatchdog(SessionOwner owner, const HelperEnvironment& environment,
                                 std::function<void()> finish)
    : owner_(owner),
      environment_(environment),
      finish_(std::move(finish)),
      thread_(startThread([this] { watch(); })) {}

void SessionWatchdog::stop() {
    {
        const ConditionGuard guard(lock_);
        stopped_ = true;
        lock_.broadcast();
    }
    if (thread_.joinable()) {
        thread_.join();
    }
}

void SessionWatchdog::watch() noexcept {
    environment_.useUtilityPriority();
    while (!sleepUntilStopped()) {
        if (environment_.shouldStop() || !environment_.ownerAlive(owner_.pid, owner_.uid) ||
            hungUp()) {
            finish_();
            environment_.endProcess(0);
            return;
        }
    }
}

bool SessionWatchdog::sleepUntilStopped() {
    const double poll = environment_.timings.watchdogPoll;
    const ConditionGuard guard(lock_);
    return lock_.waitLocked(poll, poll, environment_.uptime,
                            [this]() FV_REQUIRES(lock_) { return stopped_; });
}

// What was written before the hang-up may still be unread, and short requests get their replies.
bool SessionWatchdog::hungUp() {
    pollfd input{environment_.inputDescriptor, POLLIN, 0};
    if (!hungUpAt_ && ::poll(&input, 1, 0) > 0 &&
        ((input.revents & POLLHUP) != 0 || isHalfClosed(input.fd))) {
        hungUpAt_ = environment_.uptime();
    }
    return hungUpAt_ && environment_.uptime() - *hungUpAt_ >= environment_.timings.hangUp;
}

}  // namespace ferovane
