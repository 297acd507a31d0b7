#include "helper/lease_reason.h"

#include "core/model/scope_error.h"

namespace ferovane {
namespace {

// Two clocks of one machine, read one after the other, are never so far apart unless it slept.
constexpr double kSleptSeconds = 1;

ResultCode codeOfFailure(const std::exception_ptr& failure) noexcept {
    try {
        std::rethrow_exception(failure);
    } catch (const std::exception& error) {
        return codeOf(error);
    }
}

}  // namespace

LeaseEnd reasonFor(const std::exception_ptr& failure, const LeaseSurroundings& around) noexcept {
    const ResultCode code = failure ? codeOfFailure(failure) : ResultCode::notReturned;
    const bool lost = code == ResultCode::occupied || code == ResultCode::unreadable;
    if (!lost && code != ResultCode::notReturned) {
        return LeaseEnd::failed;
    }
    if (!lost && (around.stopSignal || around.ownerGone || around.requested)) {
        return around.stopSignal  ? LeaseEnd::stop
               : around.ownerGone ? LeaseEnd::owner
                                  : LeaseEnd::request;
    }
    if (around.slept) {
        return LeaseEnd::sleep;
    }
    return !lost                          ? LeaseEnd::time
           : code == ResultCode::occupied ? LeaseEnd::otherProgram
                                          : LeaseEnd::unreadable;
}

std::string_view textOf(LeaseEnd reason, const std::exception_ptr& failure) noexcept {
    if (!textOf(reason).empty() || !failure) {
        return textOf(reason);
    }
    try {
        std::rethrow_exception(failure);
    } catch (const std::exception& error) {
        return userText(error);
    }
}

double asleep(const HelperEnvironment& environment) {
    return environment.now() - environment.uptime();
}

bool sleptSince(double before, const HelperEnvironment& environment) {
    return asleep(environment) - before > kSleptSeconds;
}

}  // namespace ferovane
