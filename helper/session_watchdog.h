// Ends the process of a session whose owner is gone, or has hung up, or that was told to stop.
#pragma once

#include <functional>
#include <optional>
#include <thread>

#include "helper/condition_lock.h"
#include "helper/helper_environment.h"
#include "helper/session_owner.h"

namespace ferovane {

class SessionWatchdog {
public:
    // Looks on a thread of its own. When the owner is gone, a stop signal has arrived, or the
    // session's input was hung up and the request that is being served keeps it from noticing, it
    // calls `finish` (on that thread; it may take seconds) and then ends the process with status 0.
    // The environment must outlive this.
    SessionWatchdog(SessionOwner owner, const HelperEnvironment& environment,
                    std::function<void()> finish);
    ~SessionWatchdog() { stop(); }
    SessionWatchdog(const SessionWatchdog&) = delete;
    SessionWatchdog& operator=(const SessionWatchdog&) = delete;

    // Returns once the thread has ended. Not called on the watchdog's own thread.
    void stop() FV_EXCLUDES(lock_);

private:
    void watch() noexcept FV_EXCLUDES(lock_);
    bool sleepUntilStopped() FV_EXCLUDES(lock_);
    bool hungUp();

    const SessionOwner owner_;
    const HelperEnvironment& environment_;
    const std::function<void()> finish_;
    std::optional<double> hungUpAt_;  // of the thread's; when that was first seen
    ConditionLock lock_;
    bool stopped_ FV_GUARDED_BY(lock_) = false;
    std::thread thread_;
};

}  // namespace ferovane
