#include "helper/session_control.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "core/fan/cooling_lease.h"
#include "core/fan/hand_back.h"
#include "core/fan/profile.h"
#include "core/model/scope_error.h"
#include "core/model/uuid.h"
#include "core/power/power_transaction.h"
#include "helper/fan_control_policy.h"
#include "helper/fan_return.h"
#include "helper/lease_reason.h"
#include "helper/standard_streams.h"
#include "helper/turbo_change.h"

namespace ferovane {
namespace {

constexpr const char* kOldLeaseRuns = "等待风扇恢复自动超时，未开始下一操作";
constexpr const char* kNotConfirmed = "控制确认超时，已请求恢复系统自动";
constexpr const char* kSessionEnds = "会话正在结束，未开始新操作";
constexpr std::string_view kUnfinished = "会话结束时操作仍未完成，未确认恢复原设置";
constexpr const char* kNoThread = "无法启动风扇控制线程";
constexpr const char* kCustomLabel = "独立风扇策略";
constexpr const char* kFanTestMode = "test-fans";
constexpr const char* kFanTestLabel = "风扇测试";
constexpr double kFanTestPercent = 100.0;

// Tells the sampler, however a change of turbo has gone.
class TurboNews {
public:
    explicit TurboNews(HardwareSampler& sampler) : sampler_(sampler) {}
    TurboNews(const TurboNews&) = delete;
    TurboNews& operator=(const TurboNews&) = delete;
    ~TurboNews() { sampler_.refreshTurbo(); }

private:
    HardwareSampler& sampler_;
};

std::string textOf(const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const std::exception& error) {
        return describe(error);
    }
}

ResultCode codeOf(const std::exception_ptr& failure) noexcept {
    try {
        std::rethrow_exception(failure);
    } catch (const std::exception& error) {
        return ferovane::codeOf(error);
    }
}

// Also of "profile" with "automatic", after which no lease runs.
void sayConfirmed(ControlReply& reply) {
    reply.say("控制已确认生效", reply.session ? ResultCode::confirmed : ResultCode::automatic);
}

}  // namespace

SessionControl::SessionControl(SessionOwner owner, const HelperEnvironment& environment)
    : owner_(owner),
      environment_(environment),
      guardian_(environment.makeGuardian()),
      held_(*guardian_, environment.log),
      smc_(environment.makeSMC()),
      fans_(*smc_, held_),
      sampler_(environment.makeSampler()),
      power_(environment.makePowerAccess(*guardian_, [this] { return isEnding(); })) {}

SessionControl::~SessionControl() {
    if (thread_.joinable()) {
        thread_.join();
    }
}

// ---- Requests ---------------------------------------------------------------------------------

ControlReply SessionControl::handle(const ControlRequest& request) {
    FanControlPolicy::validate(request, environment_.appleSilicon);
    switch (request.knownCommand()) {
        case ControlCommand::hello:
        case ControlCommand::status:
            break;
        case ControlCommand::automatic:
            returnFans();
            break;
        case ControlCommand::testFans:
            start(FanCurve::manual(kFanTestPercent), kFanTestMode,
                  request.label.value_or(kFanTestLabel), environment_.timings.fanTest);
            return confirmed();
        case ControlCommand::profile:
            startProfile(request);
            return confirmed();
        case ControlCommand::powerOptimize:
            return optimize(*request.powerPlan);
        case ControlCommand::powerRestore:
            return restore(*request.powerBackup);
        case ControlCommand::turboDisable:
            return switchTurbo(true);
        case ControlCommand::turboEnable:
            return switchTurbo(false);
        case ControlCommand::shutdown: {
            const ConditionGuard guard(lock_);
            requireStoppedLocked();
            break;
        }
    }
    return status();
}

void SessionControl::serve(bool begins) {
    const ConditionGuard guard(lock_);
    serving_ = begins;
    lock_.broadcast();
}

bool SessionControl::isEnding() {
    // Looked at here too, and not only by the watchdog: nothing must depend on one thread.
    if (environment_.shouldStop() || !environment_.ownerAlive(owner_.pid, owner_.uid)) {
        return true;
    }
    const ConditionGuard guard(lock_);
    return finished_;
}

void SessionControl::requireGoingOn() {
    if (isEnding()) {
        throw ScopeError(kSessionEnds, ResultCode::ending);
    }
}

void SessionControl::startProfile(const ControlRequest& request) {
    const Profile profile = *profileNamed(*request.profile);
    if (profile == Profile::automatic) {
        returnFans();
        return;
    }
    const bool custom = profile == Profile::custom;
    const std::string label =
        custom ? kCustomLabel : request.label.value_or(std::string(rawValue(profile)));
    TurboChange turbo(*power_);
    if (!custom) {
        turbo.apply(disablesTurbo(profile));
    }
    turbo.rollBackOnFailure([&] {
        start(custom ? *request.curve : curve(profile), *request.profile, label,
              environment_.timings.profile);
    });
}

ControlReply SessionControl::switchTurbo(bool disable) {
    requireGoingOn();
    const TurboNews news(*sampler_);
    TurboChange(*power_).apply(disable);
    const auto turbo = power_->turboState();
    const ConditionGuard guard(lock_);
    return stateLocked(turbo);
}

ControlReply SessionControl::optimize(const PowerOptimizationPlan& plan) {
    requireGoingOn();
    const TurboNews news(*sampler_);
    PowerOutcome outcome = PowerTransaction::apply(plan, *power_);
    const bool changed = outcome.changed;
    ControlReply reply = powerReply(std::move(outcome));
    changed ? reply.say("优化设置已确认生效", ResultCode::applied)
            : reply.say("所选设置已满足", ResultCode::unchanged);
    return reply;
}

ControlReply SessionControl::restore(const PowerBackup& backup) {
    requireGoingOn();
    const TurboNews news(*sampler_);
    PowerOutcome outcome = PowerTransaction::restore(backup, *power_);
    const bool whole = outcome.skipped == 0;
    ControlReply reply = powerReply(std::move(outcome));
    whole ? reply.say("原设置已恢复", ResultCode::restored)
          : reply.say("恢复已结束；外部更改保留", ResultCode::partlyRestored);
    return reply;
}

void SessionControl::takeBack(const ControlReply& undelivered) noexcept {
    if (!undelivered.power || !undelivered.power->backup) {
        return;
    }
    try {
        PowerTransaction::takeBack(*undelivered.power->backup, *power_);
    } catch (const std::exception& error) {
        reportLine(environment_.errorDescriptor, userText(error));
    }
}

void SessionControl::returnFans() {
    {
        const ConditionGuard guard(lock_);
        requireStoppedLocked();
    }
    std::exception_ptr failure;
    try {
        returnEveryFan(fans_);
    } catch (...) {
        failure = std::current_exception();
    }
    // A fan that is held and no longer listed was not among them.
    const std::exception_ptr unreturned = returnHeldFans();
    tellReturned(environment_.log, failure ? failure : unreturned);
    if (unreturned) {
        goOnReturning(unreturned);
    }
    if (failure && unreturned) {
        throw ScopeError(textOf(failure), ResultCode::notReturned);  // the graver news
    }
    if (failure || unreturned) {
        std::rethrow_exception(failure ? failure : unreturned);
    }
}

// Gives what is still held another chance, and remembers how that went.
std::exception_ptr SessionControl::returnHeldFans() noexcept {
    const std::exception_ptr unreturned = fans_.returnHeld();
    const ConditionGuard guard(lock_);
    unreturned_ = unreturned;
    return unreturned;
}

ControlReply SessionControl::status() {
    const auto turbo = power_->turboState();
    const ConditionGuard guard(lock_);
    if (unreturned_) {
        std::rethrow_exception(unreturned_);
    }
    return stateLocked(turbo);
}

ControlReply SessionControl::stateLocked(std::optional<std::int64_t> turbo) {
    ControlReply reply{true, ""};
    const bool leased = running_ && lease_ && !unreturned_;
    if (leased) {
        reply.session = lease_->session;
        reply.profile = lease_->mode;
        reply.label = lease_->label;
        if (lease_->progress) {
            reply.fanStatus =
                FanSessionStatus{std::max(0.0, lease_->progress->deadline - environment_.now()),
                                 lease_->progress->targets, lease_->progress->protectionActive};
        }
    }
    if (leased && lease_->applied) {
        sayConfirmed(reply);
    } else if (unreturned_) {
        reply.say(textOf(unreturned_), codeOf(unreturned_));
    } else {
        reply.say("风扇由系统管理", ResultCode::automatic);
    }
    reply.turbo = turbo;
    return reply;
}

std::optional<LeaseEnding> SessionControl::takeEnding() {
    const ConditionGuard guard(lock_);
    if (!ended_) {
        return std::nullopt;
    }
    LeaseEnding ending{ended_->session, std::string(rawValue(ended_->reason)),
                       std::string(textOf(ended_->reason, ended_->failure))};
    ended_.reset();
    return ending;
}

ControlReply SessionControl::confirmed() {
    ControlReply reply = status();
    sayConfirmed(reply);
    return reply;
}

ControlReply SessionControl::powerReply(PowerOutcome outcome) {
    const auto turbo = power_->turboState();
    const ConditionGuard guard(lock_);
    ControlReply reply = stateLocked(turbo);
    reply.power = std::move(outcome);
    return reply;
}

// ---- Starting and stopping a lease ------------------------------------------------------------

void SessionControl::start(const FanCurve& curve, const std::string& mode, const std::string& name,
                           double duration) {
    curve.validate();
    {
        const ConditionGuard guard(lock_);
        requireStoppedLocked();
        if (finished_) {
            throw ScopeError(kSessionEnds, ResultCode::ending);
        }
        beginLocked(mode, name, duration);
    }
    try {
        if (thread_.joinable()) {
            thread_.join();  // the ended lease's; it has nothing left to do
        }
        thread_ = std::thread([this, curve, mode, duration] { runLease(curve, mode, duration); });
    } catch (const std::exception&) {
        const ConditionGuard guard(lock_);
        running_ = false;
        lock_.broadcast();
        throw ScopeError(kNoThread, ResultCode::resources);
    }
    awaitConfirmation();
}

void SessionControl::beginLocked(const std::string& mode, const std::string& name,
                                 double duration) {
    lease_ = Lease{Uuid::random().text(), mode,  name,   duration, std::nullopt,
                   asleep(environment_),  false, nullptr};
    stopRequested_ = false;
    running_ = true;
}

void SessionControl::askToStopLocked() {
    if (running_) {
        stopRequested_ = true;
        lock_.broadcast();
    }
}

void SessionControl::requireStoppedLocked() {
    askToStopLocked();
    awaited_ = true;
    const bool stopped =
        lock_.waitLocked(environment_.timings.leaseEnd, environment_.timings.leasePoll,
                         environment_.uptime, [this]() FV_REQUIRES(lock_) { return !running_; });
    awaited_ = false;
    if (!stopped) {
        throw ScopeError(kOldLeaseRuns, ResultCode::timeout);
    }
}

void SessionControl::awaitConfirmation() {
    const ConditionGuard guard(lock_);
    lock_.waitLocked(
        environment_.timings.confirmation, environment_.timings.leasePoll, environment_.uptime,
        [this]() FV_REQUIRES(lock_) { return !running_ || lease_->applied || lease_->failure; });
    if (lease_->failure && unreturned_) {  // the graver news
        throw ScopeError(textOf(lease_->failure), ResultCode::notReturned);
    }
    if (lease_->failure) {
        std::rethrow_exception(lease_->failure);
    }
    if (!lease_->applied) {
        stopRequested_ = true;
        lock_.broadcast();
        throw ScopeError(kNotConfirmed, ResultCode::timeout);
    }
}

std::string_view SessionControl::finish() {
    const ConditionGuard guard(lock_);
    finished_ = true;
    askToStopLocked();
    lock_.waitLocked(environment_.timings.leaseEnd, environment_.timings.leasePoll,
                     environment_.uptime,
                     [this]() FV_REQUIRES(lock_) { return !running_ && !serving_; });
    return running_ || unreturned_ ? kRestoreFailed : serving_ ? kUnfinished : std::string_view();
}

// ---- On the lease's thread --------------------------------------------------------------------

void SessionControl::runLease(const FanCurve& curve, const std::string& mode,
                              double duration) noexcept {
    // First what an earlier lease could not hand back: such a fan is not free to be taken.
    std::exception_ptr failure = returnHeldFans();
    LeaseEnd reason = LeaseEnd::failed;
    if (!failure) {
        held_.begin(mode, duration);
        sampler_->reset();
        sampler_->refreshTurbo();
        try {
            holdCurve(curve, duration);
        } catch (...) {
            failure = std::current_exception();
            reportLateFailure(failure);
        }
        reason = reasonOfEnd(failure);
        keepReturning(failure);
        held_.end(textOf(reason, failure));
    } else {
        keepReturning(failure);
    }
    const ConditionGuard guard(lock_);
    if (lease_->applied) {
        ended_ = Ended{std::move(lease_->session), reason, failure};
    }
    lease_->failure = failure;
    running_ = false;
    lock_.broadcast();
}

// Whoever asked for the lease has his reply already.
void SessionControl::reportLateFailure(const std::exception_ptr& failure) noexcept {
    const bool applied = [this] {
        const ConditionGuard guard(lock_);
        return lease_->applied;
    }();
    if (applied) {
        reportFailure(environment_.errorDescriptor, failure);
    }
}

// Nobody may ask for the fans that the lease left in the next half hour. Whoever waits for its end
// tries for himself, or leaves them to the guardian.
void SessionControl::keepReturning(const std::exception_ptr& failure) noexcept {
    const auto attempt = [&] {
        if (!returnHeldFans()) {
            return true;
        }
        const ConditionGuard guard(lock_);
        if (lease_) {
            lease_->failure = failure;  // whoever waits for it learns at once what ended it
        }
        lock_.broadcast();
        return false;
    };
    returnPatiently(environment_.timings.returnPause, attempt, [this](double seconds) {
        const ConditionGuard guard(lock_);
        return lock_.waitLocked(seconds, environment_.timings.leasePoll, environment_.uptime,
                                [this]() FV_REQUIRES(lock_) { return awaited_ || finished_; });
    });
}

// In the background, as after a lease.
void SessionControl::goOnReturning(const std::exception_ptr& failure) noexcept {
    {
        const ConditionGuard guard(lock_);
        lease_.reset();  // it is over, and has told why
        running_ = true;
    }
    const auto end = [this] {
        const ConditionGuard guard(lock_);
        running_ = false;
        lock_.broadcast();
    };
    try {
        thread_.join();  // the lease's that took the fans; it has ended
        thread_ = std::thread([this, failure, end] {
            keepReturning(failure);
            end();
        });
    } catch (const std::exception&) {
        end();  // then the next request tries again, or the guardian
    }
}

void SessionControl::holdCurve(const FanCurve& curve, double duration) {
    CurveLease::run(
        fans_, curve, duration, [this] { return sampler_->sample(); }, environment_.now,
        [this] { return mustStop(); }, [this](double left) { waitForRound(left); },
        [this](const FanControlProgress& progress) {
            const ConditionGuard guard(lock_);
            lease_->progress = progress;
            lease_->asleep = asleep(environment_);
        },
        [this] {
            const ConditionGuard guard(lock_);
            lease_->applied = true;
            lock_.broadcast();
        });
}

// Of a lease that has just ended. Whether its fans could be handed back is another matter.
LeaseEnd SessionControl::reasonOfEnd(const std::exception_ptr& failure) noexcept {
    const bool stops = environment_.shouldStop();
    const bool ownerGone = !environment_.ownerAlive(owner_.pid, owner_.uid);
    const ConditionGuard guard(lock_);
    return reasonFor(failure,
                     {stops, ownerGone, stopRequested_, sleptSince(lease_->asleep, environment_)});
}

bool SessionControl::mustStop() {
    if (isEnding()) {
        return true;
    }
    const ConditionGuard guard(lock_);
    return stopRequested_;
}

void SessionControl::waitForRound(double left) {
    bool stopped = false;
    double toWait = std::min(environment_.timings.leaseRound, left);
    for (; toWait > 0 && !stopped; toWait -= kGuardedSeconds) {
        {
            const ConditionGuard guard(lock_);
            stopped = lock_.waitLocked(std::min(toWait, kGuardedSeconds),
                                       environment_.timings.leasePoll, environment_.uptime,
                                       [this]() FV_REQUIRES(lock_) { return stopRequested_; });
        }
        fans_.stayGuarded();
    }
}

}  // namespace ferovane
