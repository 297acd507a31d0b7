// A process beside the helper that outlives its crash.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "helper/fan_guardian.h"
#include "helper/guardian_watch.h"

namespace ferovane {

// Starts the guardian when it is made: the helper's own file under another argument 0, in a session
// of its own, root's entirely, holding nothing of the helper but one end of a socket. Its code is
// in memory from then on; it needs no file any more. It sleeps in a read until the helper's end is
// closed (see keepGuard). A helper that is merely stopped keeps its end open, and nothing happens.
//
// That a guardian has died is learnt from the socket: at once by a thread that sleeps until then,
// and by whoever takes fans, holds them for another round, or starts a tool. One that was lost is
// replaced while there is something to guard.
//
// Any thread. SIGPIPE must be ignored in the whole process. Its end releases the guardian; fans
// still held then are handed back by it.
class ProcessGuardian : public FanGuardian {
public:
    // helperPath: where the helper's own file stands now; asked at each start of a guardian, and
    // may throw. Throws ScopeError when no guardian can be started.
    explicit ProcessGuardian(std::function<std::string()> helperPath);
    ~ProcessGuardian() override;
    ProcessGuardian(const ProcessGuardian&) = delete;
    ProcessGuardian& operator=(const ProcessGuardian&) = delete;

    void fansHeld() override;
    void fansReturned() noexcept override;
    void takeOver() noexcept override;
    void toolStarted(pid_t group) override;
    void toolEnded() noexcept override;

private:
    bool charge(const GuardianCharge& charge) noexcept;
    void relieve(const GuardianCharge& charge) noexcept;
    struct Socket;

    void watch() noexcept;
    void replace(std::unique_lock<std::mutex>& lock) noexcept;
    bool isAlive() const noexcept;
    bool tell() noexcept;
    bool start() noexcept;
    void release() noexcept;
    void end() noexcept;
    void hangUp() noexcept;

    const std::function<std::string()> helperPath_;
    std::mutex mutex_;  // guards all that follows; public functions and the thread take it
    std::condition_variable changed_;
    pid_t pid_ = -1;
    std::shared_ptr<Socket> socket_;  // null without a guardian; also the thread's while it looks
    GuardianCharge charge_, told_;
    bool over_ = false;
    std::thread watcher_;
};

}  // namespace ferovane
