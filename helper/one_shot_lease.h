// What the one-shot fan commands share: whom they serve, and what ends them early.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "core/model/uuid.h"
#include "helper/helper_environment.h"
#include "helper/lease_reason.h"
#include "helper/session_owner.h"

namespace ferovane {

// The owner's process id, the owner's user id and the session identifier, standing behind the
// command word of a one-shot fan command.
struct OneShotCaller {
    SessionOwner owner;
    Uuid session;

    // Absent unless the arguments parse, the process id is at least 2 (never the kernel or the
    // first process), the user id is not 0, and the owner is alive and belongs to that user.
    static std::optional<OneShotCaller> authenticate(const std::vector<std::string>& args,
                                                     const HelperEnvironment& environment);
};

// True once the stop flag is set, the owner is gone, or the owner's stop file exists. Only the
// file's existence counts: it is never opened, followed or removed.
class EarlyEnd {
public:
    EarlyEnd(const OneShotCaller& caller, const HelperEnvironment& environment);
    bool operator()() const;

    // Of a lease that ends now. slept: as in LeaseSurroundings.
    LeaseEnd reason(const std::exception_ptr& failure, bool slept) const noexcept;

private:
    SessionOwner owner_;
    std::string stopFile_;
    const HelperEnvironment& environment_;
};

}  // namespace ferovane
