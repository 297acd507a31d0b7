#include "helper/fan_commands.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <string_view>

#include "core/fan/cooling_lease.h"
#include "core/fan/curve_lease.h"
#include "core/fan/fan_curve.h"
#include "core/fan/fan_keys.h"
#include "core/fan/profile.h"
#include "core/model/base64.h"
#include "core/model/json_codec.h"
#include "core/model/scope_error.h"
#include "helper/fan_return.h"
#include "helper/held_fans.h"
#include "helper/lease_log.h"
#include "helper/one_shot_lease.h"
#include "helper/standard_streams.h"
#include "helper/turbo_change.h"

namespace ferovane {
namespace {

constexpr std::size_t kCoolingArguments = 5;
constexpr std::size_t kProfileArguments = 7;
constexpr std::size_t kCommandWord = 1;
constexpr std::size_t kModeArgument = 5;
constexpr std::size_t kCurveArgument = 6;
constexpr std::size_t kLongestCurveText = 4096;  // bytes of base64

constexpr double kCoolingRoundSeconds = 1.0;
constexpr double kProfileRoundSeconds = 2.0;

FanCurve decodeCurve(const std::string& text) {
    constexpr const char* kMessage = "曲线数据无效";
    const auto json =
        text.size() <= kLongestCurveText ? decodeBase64(text) : std::optional<std::string>();
    if (!json) {
        throw ScopeError(kMessage);
    }
    try {
        return decodeJson<FanCurve>(*json);
    } catch (const ScopeError&) {
        throw ScopeError(kMessage);
    }
}

struct ProfileRequest {
    OneShotCaller caller;
    Profile profile;
    FanCurve curve;
};

ProfileRequest readProfileRequest(const std::vector<std::string>& args,
                                  const HelperEnvironment& environment) {
    const auto caller = args.size() == kProfileArguments
                            ? OneShotCaller::authenticate(args, environment)
                            : std::nullopt;
    const auto mode = caller ? profileNamed(args[kModeArgument]) : std::nullopt;
    if (!mode || *mode == Profile::eco) {
        environment.log(LogLine({kCallerRefused, args[kCommandWord]}));
        throw ScopeError("无效的模式会话参数");
    }
    const FanCurve fanCurve =
        *mode == Profile::custom ? decodeCurve(args[kCurveArgument]) : curve(*mode);
    fanCurve.validate();
    return {*caller, *mode, fanCurve};
}

// The fans of one command, and whom it serves.
class OneShotLease {
public:
    OneShotLease(const OneShotCaller& caller, FanGuardian& guardian,
                 const HelperEnvironment& environment)
        : environment_(environment),
          smc_(environment.makeSMC()),
          held_(guardian, environment.log),
          fans_(*smc_, held_),
          ends_(caller, environment) {}

    HeldFans& fans() { return fans_; }
    const EarlyEnd& ends() const { return ends_; }

    // Runs a lease. A fan that it could not hand back is told beside the error that ended it, and
    // left to the guardian at once: putting turbo back may take minutes. mode: for the log.
    template <class Lease>
    void run(std::string_view mode, double duration, Lease&& lease) {
        asleep_ = asleep(environment_);
        held_.begin(mode, duration);
        try {
            lease();
            tellEnd(nullptr);
        } catch (...) {
            const std::exception_ptr unreturned = fans_.returnHeld();
            if (unreturned) {
                held_.takeOver();
                reportFailure(environment_.errorDescriptor, unreturned);
            }
            tellEnd(std::current_exception());
            throw;
        }
    }

    void awaitRound(double seconds) {
        bool stopped = false;
        asleep_ = asleep(environment_);
        for (double left = seconds; left > 0 && !stopped; left -= kGuardedSeconds) {
            stopped = environment_.pause(std::min(left, kGuardedSeconds));
            fans_.stayGuarded();
        }
    }

private:
    void tellEnd(const std::exception_ptr& failure) noexcept {
        const bool slept = sleptSince(asleep_, environment_);
        held_.end(textOf(ends_.reason(failure, slept), failure));
    }

    const HelperEnvironment& environment_;
    const std::unique_ptr<SMC> smc_;
    LeaseLog held_;
    HeldFans fans_;
    const EarlyEnd ends_;
    double asleep_ = 0;  // seconds that the machine had slept at the last look at the fans
};

void requireTemperatures(const Snapshot& snapshot, const FanCurve& fanCurve) {
    if (!snapshot.cpuTemperature() || !temperature(fanCurve.sensor, snapshot)) {
        throw ScopeError("风扇必须处于系统自动，且控制温度传感器可读取；请先退出其他调控软件。");
    }
}

}  // namespace

void coolFans(const std::vector<std::string>& args, double duration,
              const HelperEnvironment& environment) {
    const auto caller = args.size() == kCoolingArguments
                            ? OneShotCaller::authenticate(args, environment)
                            : std::nullopt;
    if (!caller) {
        environment.log(LogLine({kCallerRefused, args[kCommandWord]}));
        throw ScopeError("无效的散热会话参数或发起程序已经退出");
    }
    environment.installStopHandlers();
    const auto guardian = environment.makeGuardian();
    OneShotLease lease(*caller, *guardian, environment);
    lease.run(args[kCommandWord], duration, [&] {
        CoolingLease::run(lease.fans(), duration, environment.now, lease.ends(), [&](double left) {
            lease.awaitRound(std::min(kCoolingRoundSeconds, left));
        });
    });
    writeText(environment.outputDescriptor, "散热会话结束，已确认风扇恢复系统自动。\n");
}

void runProfile(const std::vector<std::string>& args, const HelperEnvironment& environment) {
    const ProfileRequest request = readProfileRequest(args, environment);
    environment.installStopHandlers();
    const auto guardian = environment.makeGuardian();
    OneShotLease lease(request.caller, *guardian, environment);
    const auto sampler = environment.makeSampler();
    requireTemperatures(sampler->sample(), request.curve);

    const auto power = environment.makePowerAccess(*guardian, lease.ends());
    TurboChange turbo(*power);
    if (request.profile != Profile::custom) {
        turbo.apply(disablesTurbo(request.profile));
        sampler->refreshTurbo();
    }
    turbo.rollBackOnFailure([&] {
        lease.run(args[kModeArgument], FanLimits::kLeaseSeconds, [&] {
            CurveLease::run(
                lease.fans(), request.curve, FanLimits::kLeaseSeconds,
                [&] { return sampler->sample(); }, environment.now, lease.ends(),
                [&](double left) { lease.awaitRound(std::min(kProfileRoundSeconds, left)); },
                [](const FanControlProgress&) {}, [] {});
        });
    });
    writeText(environment.outputDescriptor, "模式会话结束，风扇已恢复系统自动；保留睿频选择。\n");
}

void returnFans(const HelperEnvironment& environment) {
    environment.installStopHandlers();  // nothing asks for them: a hand-back that began is finished
    std::exception_ptr failure;
    try {
        returnEveryFan(*environment.makeSMC());
    } catch (...) {
        failure = std::current_exception();
    }
    tellReturned(environment.log, failure);
    if (failure) {
        std::rethrow_exception(failure);
    }
    writeText(environment.outputDescriptor, "风扇已恢复系统自动。\n");
}

}  // namespace ferovane
