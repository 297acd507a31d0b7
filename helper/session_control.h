// The fan state of one control session, and how each of its requests is served.
#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "core/control/control_reply.h"
#include "core/control/control_request.h"
#include "core/fan/curve_lease.h"
#include "helper/condition_lock.h"
#include "helper/held_fans.h"
#include "helper/helper_environment.h"
#include "helper/session_owner.h"

namespace ferovane {

// Requests are served on one thread; a lease runs on a thread of its own; a watchdog may call
// finish() from a third. Never two leases at once: a new one starts after the old one has ended.
class SessionControl {
public:
    // The environment must outlive this.
    SessionControl(SessionOwner owner, const HelperEnvironment& environment);

    // The lease must have ended: finish() has returned true.
    ~SessionControl();
    SessionControl(const SessionControl&) = delete;
    SessionControl& operator=(const SessionControl&) = delete;

    // Serves one request and returns its reply; throws ScopeError with the text of a failure reply.
    ControlReply handle(const ControlRequest& request);

    // The state of the session now. Throws while fans that a lease could not hand back are not
    // known to be automatic again.
    ControlReply status() FV_EXCLUDES(lock_);

    // Starts a lease in the background, after ending the one that runs, and returns once its first
    // targets were confirmed. name: the label that status shows. duration: seconds.
    void start(const FanCurve& curve, const std::string& mode, const std::string& name,
               double duration) FV_EXCLUDES(lock_);

    // Ends the session's fan control for good: asks the lease to stop, waits for it and returns
    // whether every fan is known to have been handed back. Any thread; may be called again.
    bool finish() FV_EXCLUDES(lock_);

private:
    struct Lease {
        std::string session;  // a fresh UUID for each start
        std::string mode;
        std::string label;
        double duration = 0;
        std::optional<FanControlProgress> progress;
        bool applied = false;
        std::exception_ptr failure;
    };

    void startProfile(const ControlRequest& request);
    void returnFans() FV_EXCLUDES(lock_);
    std::exception_ptr returnHeldFans() noexcept FV_EXCLUDES(lock_);
    ControlReply confirmed();
    ControlReply powerReply(PowerOutcome outcome, const char* message) FV_EXCLUDES(lock_);
    ControlReply stateLocked(std::optional<std::int64_t> turbo) FV_REQUIRES(lock_);

    void beginLocked(const std::string& mode, const std::string& name, double duration)
        FV_REQUIRES(lock_);
    void requireStoppedLocked() FV_REQUIRES(lock_);
    bool stopLocked() FV_REQUIRES(lock_);
    void awaitConfirmation() FV_EXCLUDES(lock_);

    void runLease(const FanCurve& curve, double duration) noexcept FV_EXCLUDES(lock_);
    void holdCurve(const FanCurve& curve, double duration);
    void keepReturning(const std::exception_ptr& failure) noexcept FV_EXCLUDES(lock_);
    bool mustStop() FV_EXCLUDES(lock_);
    void waitForRound(double left) FV_EXCLUDES(lock_);

    const SessionOwner owner_;
    const HelperEnvironment& environment_;
    const std::unique_ptr<FanGuardian> guardian_;
    const std::unique_ptr<SMC> smc_;
    HeldFans fans_;  // and through it the two above: the lease's while one runs, else the request's
    const std::unique_ptr<HardwareSampler> sampler_;
    const std::unique_ptr<PowerSettingsAccess> power_;
    std::thread thread_;  // of the last lease; touched by the request thread only

    ConditionLock lock_;
    bool running_ FV_GUARDED_BY(lock_) = false;        // a lease of this session runs
    bool returning_ FV_GUARDED_BY(lock_) = false;      // a request is handing fans back
    bool stopRequested_ FV_GUARDED_BY(lock_) = false;  // the running lease is to end
    bool finished_ FV_GUARDED_BY(lock_) = false;       // nothing new may start
    std::optional<Lease> lease_ FV_GUARDED_BY(lock_);
    std::exception_ptr unreturned_ FV_GUARDED_BY(lock_);  // why fans may still be manual
};

}  // namespace ferovane
