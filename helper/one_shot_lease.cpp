#include "helper/one_shot_lease.h"

namespace ferovane {
namespace {

constexpr std::size_t kPidArgument = 2;
constexpr std::size_t kUidArgument = 3;
constexpr std::size_t kSessionArgument = 4;
constexpr std::int32_t kSmallestOwnerPid = 2;
constexpr std::string_view kStopFilePrefix = "/tmp/ferovane-stop-";

}  // namespace

std::optional<OneShotCaller> OneShotCaller::authenticate(const std::vector<std::string>& args,
                                                         const HelperEnvironment& environment) {
    const auto owner = SessionOwner::parse(args.at(kPidArgument), args.at(kUidArgument));
    const auto session = Uuid::parse(args.at(kSessionArgument));
    if (!owner || !session || owner->pid < kSmallestOwnerPid || owner->uid == 0 ||
        !environment.ownerAlive(owner->pid, owner->uid)) {
        return std::nullopt;
    }
    return OneShotCaller{*owner, *session};
}

EarlyEnd::EarlyEnd(const OneShotCaller& caller, const HelperEnvironment& environment)
    : owner_(caller.owner),
      stopFile_(std::string(kStopFilePrefix) + caller.session.text()),
      environment_(environment) {}

bool EarlyEnd::operator()() const {
    return environment_.shouldStop() || !environment_.ownerAlive(owner_.pid, owner_.uid) ||
           environment_.fileExists(stopFile_);
}

LeaseEnd EarlyEnd::reason(const std::exception_ptr& failure, bool slept) const noexcept {
    return reasonFor(failure,
                     {environment_.shouldStop(), !environment_.ownerAlive(owner_.pid, owner_.uid),
                      environment_.fileExists(stopFile_), slept});
}

}  // namespace ferovane
