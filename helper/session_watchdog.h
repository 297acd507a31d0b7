// Ends the process of a session whose owner is gone or that was told to stop.
#pragma once

#include <functional>
#include <thread>

#include "helper/condition_lock.h"
#include "helper/helper_environment.h"
#include "helper/session_owner.h"

namespace ferovane {

class SessionWatchdog {
public:
    // Looks on a thread of its own. When the owner is gone or a stop signal has arrived, it calls
    // endFanControl (on that thread; it may take seconds) and then ends the process with status 0.
    // The environment must outlive this.
    SessionWatchdog(SessionOwner owner, const HelperEnvironment& environment,
                    std::function<void()> endFanControl);
    ~SessionWatchdog() { stop(); }
    SessionWatchdog(const SessionWatchdog&) = delete;
    SessionWatchdog& operator=(const SessionWatchdog&) = delete;

    // Returns once the thread has ended. Not called on the watchdog's own thread.
    void stop() FV_EXCLUDES(lock_);

private:
    void watch() noexcept FV_EXCLUDES(lock_);
    bool sleepUntilStopped() FV_EXCLUDES(lock_);

    const SessionOwner owner_;
    const HelperEnvironment& environment_;
    const std::function<void()> endFanControl_;
    ConditionLock lock_;
    bool stopped_ FV_GUARDED_BY(lock_) = false;
    std::thread thread_;
};

}  // namespace ferovane
