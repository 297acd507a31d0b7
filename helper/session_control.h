// The fan state of one control session, and how each of its requests is served.
#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "core/control/control_reply.h"
#include "core/control/control_request.h"
#include "core/fan/curve_lease.h"
#include "helper/condition_lock.h"
#include "helper/held_fans.h"
#include "helper/helper_environment.h"
#include "helper/lease_log.h"
#include "helper/session_owner.h"

namespace ferovane {

// Requests are served on one thread; a lease runs on a thread of its own; a watchdog may call
// finish() from a third. Never two leases at once: a new one starts after the old one has ended.
class SessionControl {
public:
    // The environment must outlive this.
    SessionControl(SessionOwner owner, const HelperEnvironment& environment);

    // The lease must have ended: finish() has returned nothing.
    ~SessionControl();
    SessionControl(const SessionControl&) = delete;
    SessionControl& operator=(const SessionControl&) = delete;

    // While one lives, a request is being served, the delivery of its reply included: finish()
    // waits for that as for a lease.
    class Serving {
    public:
        explicit Serving(SessionControl& control) : control_(control) { control_.serve(true); }
        Serving(const Serving&) = delete;
        Serving& operator=(const Serving&) = delete;
        ~Serving() { control_.serve(false); }

    private:
        SessionControl& control_;
    };

    // Serves one request and returns its reply; throws ScopeError with the text of a failure reply.
    ControlReply handle(const ControlRequest& request);

    // Undoes what a reply that could not be delivered is the only record of. What stays changed is
    // reported on the error descriptor.
    void takeBack(const ControlReply& undelivered) noexcept;

    // The session is to end: whatever is being done is given up and undone. Any thread.
    bool isEnding() FV_EXCLUDES(lock_);

    // The state of the session now. Throws while fans that a lease could not hand back are not
    // known to be automatic again.
    ControlReply status() FV_EXCLUDES(lock_);

    // Why the last lease that had been confirmed is over; absent when none has ended since this
    // was last called.
    std::optional<LeaseEnding> takeEnding() FV_EXCLUDES(lock_);

    // Starts a lease in the background, after ending the one that runs, and returns once its first
    // targets were confirmed. name: the label that status shows. duration: seconds.
    void start(const FanCurve& curve, const std::string& mode, const std::string& name,
               double duration) FV_EXCLUDES(lock_);

    // Ends the session's work for good: asks the lease and the request that is being served to end,
    // waits for both and returns nothing when every fan is known to have been handed back and the
    // request is over; else what has to be reported, which is a constant. Any thread; may be called
    // again.
    std::string_view finish() FV_EXCLUDES(lock_);

private:
    struct Lease {
        std::string session;  // a fresh UUID for each start
        std::string mode;
        std::string label;
        double duration = 0;
        std::optional<FanControlProgress> progress;
        double asleep = 0;  // seconds that the machine had slept at the last progress
        bool applied = false;
        std::exception_ptr failure;
    };

    // A confirmed lease that is over.
    struct Ended {
        std::string session;
        LeaseEnd reason;
        std::exception_ptr failure;
    };

    void serve(bool begins) FV_EXCLUDES(lock_);
    void requireGoingOn();
    void startProfile(const ControlRequest& request);
    ControlReply switchTurbo(bool disable) FV_EXCLUDES(lock_);
    ControlReply optimize(const PowerOptimizationPlan& plan);
    ControlReply restore(const PowerBackup& backup);
    void returnFans() FV_EXCLUDES(lock_);
    std::exception_ptr returnHeldFans() noexcept FV_EXCLUDES(lock_);
    ControlReply confirmed();
    ControlReply powerReply(PowerOutcome outcome) FV_EXCLUDES(lock_);
    ControlReply stateLocked(std::optional<std::int64_t> turbo) FV_REQUIRES(lock_);

    void beginLocked(const std::string& mode, const std::string& name, double duration)
        FV_REQUIRES(lock_);
    void askToStopLocked() FV_REQUIRES(lock_);
    void requireStoppedLocked() FV_REQUIRES(lock_);
    void awaitConfirmation() FV_EXCLUDES(lock_);

    void runLease(const FanCurve& curve, const std::string& mode, double duration) noexcept
        FV_EXCLUDES(lock_);
    void goOnReturning(const std::exception_ptr& failure) noexcept FV_EXCLUDES(lock_);
    void holdCurve(const FanCurve& curve, double duration);
    void reportLateFailure(const std::exception_ptr& failure) noexcept FV_EXCLUDES(lock_);
    void keepReturning(const std::exception_ptr& failure) noexcept FV_EXCLUDES(lock_);
    LeaseEnd reasonOfEnd(const std::exception_ptr& failure) noexcept FV_EXCLUDES(lock_);
    bool mustStop() FV_EXCLUDES(lock_);
    void waitForRound(double left) FV_EXCLUDES(lock_);

    const SessionOwner owner_;
    const HelperEnvironment& environment_;
    const std::unique_ptr<FanGuardian> guardian_;
    LeaseLog held_;
    const std::unique_ptr<SMC> smc_;
    // And through it the three above: the lease's while one runs, else the request's.
    HeldFans fans_;
    const std::unique_ptr<HardwareSampler> sampler_;
    const std::unique_ptr<PowerSettingsAccess> power_;
    std::thread thread_;  // of the last lease; touched by the request thread only

    ConditionLock lock_;
    bool running_ FV_GUARDED_BY(lock_) = false;        // a lease of this session runs
    bool serving_ FV_GUARDED_BY(lock_) = false;        // a request is being served
    bool stopRequested_ FV_GUARDED_BY(lock_) = false;  // the running lease is to end
    bool awaited_ FV_GUARDED_BY(lock_) = false;        // a request waits for its end
    bool finished_ FV_GUARDED_BY(lock_) = false;       // nothing new may start
    std::optional<Lease> lease_ FV_GUARDED_BY(lock_);
    std::optional<Ended> ended_ FV_GUARDED_BY(lock_);
    std::exception_ptr unreturned_ FV_GUARDED_BY(lock_);  // why fans may still be manual
};

}  // namespace ferovane
