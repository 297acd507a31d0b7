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

// Runs a lease. A fan that it could not hand back is told beside the error that ended it, and left
// to the guardian at once: putting turbo back may take minutes.
template <class Lease>
void runLease(HeldFans& fans, LeaseLog& held, const EarlyEnd& ends,
              const HelperEnvironment& environment, Lease&& lease) {
    try {
        lease();
        held.end(nullptr, ends.reason());
    } catch (...) {
        const std::exception_ptr unreturned = fans.returnHeld();
        if (unreturned) {
            held.takeOver();
        }
        held.end(std::current_exception(), {});
        if (unreturned) {
            reportFailure(environment.errorDescriptor, unreturned);
        }
        throw;
    }
}

void awaitRound(HeldFans& fans, double seconds, const HelperEnvironment& environment) {
    bool stopped = false;
    for (double left = seconds; left > 0 && !stopped; left -= kGuardedSeconds) {
        stopped = environment.pause(std::min(left, kGuardedSeconds));
        fans.stayGuarded();
    }
}

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
    LeaseLog held(*guardian, environment.log);
    const auto smc = environment.makeSMC();
    HeldFans fans(*smc, held);
    const EarlyEnd ends(*caller, environment);
    held.begin(args[kCommandWord], duration);
    runLease(fans, held, ends, environment, [&] {
        CoolingLease::run(fans, duration, environment.now, ends, [&](double left) {
            awaitRound(fans, std::min(kCoolingRoundSeconds, left), environment);
        });
    });
    writeText(environment.outputDescriptor, "散热会话结束，已确认风扇恢复系统自动。\n");
}

void runProfile(const std::vector<std::string>& args, const HelperEnvironment& environment) {
    const ProfileRequest request = readProfileRequest(args, environment);
    environment.installStopHandlers();
    auto guardian = environment.makeGuardian();
    const auto smc = environment.makeSMC();
    const auto sampler = environment.makeSampler();
    requireTemperatures(sampler->sample(), request.curve);

    LeaseLog held(*guardian, environment.log);
    HeldFans fans(*smc, held);
    const EarlyEnd ends(request.caller, environment);
    const auto power = environment.makePowerAccess(*guardian, ends);
    TurboChange turbo(*power);
    if (request.profile != Profile::custom) {
        turbo.apply(disablesTurbo(request.profile));
        sampler->refreshTurbo();
    }
    turbo.rollBackOnFailure([&] {
        held.begin(args[kModeArgument], FanLimits::kLeaseSeconds);
        runLease(fans, held, ends, environment, [&] {
            CurveLease::run(
                fans, request.curve, FanLimits::kLeaseSeconds, [&] { return sampler->sample(); },
                environment.now, ends,
                [&](double left) {
                    awaitRound(fans, std::min(kProfileRoundSeconds, left), environment);
                },
                [](const FanControlProgress&) {}, [] {});
        });
    });
    writeText(environment.outputDescriptor, "模式会话结束，风扇已恢复系统自动；保留睿频选择。\n");
}

void returnFans(const HelperEnvironment& environment) {
    environment.installStopHandlers();  // nothing asks for them: a hand-back that began is finished
    returnEveryFan(*environment.makeSMC());
    environment.log(LogLine({kEveryFanReturned}));
    writeText(environment.outputDescriptor, "风扇已恢复系统自动。\n");
}

}  // namespace ferovane
