#include "core/fan/hand_back.h"

#include "core/fan/fan_keys.h"

namespace ferovane {
namespace {

// Why the fan could not be handed back, told so that the user learns which fan it was. To be called
// while the exception is being handled; throws it again when it has no text.
std::string causeOfFailure(int id) {
    try {
        throw;
    } catch (const ScopeError& error) {
        return error.message();
    } catch (const std::exception& error) {
        return FanKeys::of(id, FanKeys::kMode) + "：" + describe(error);
    }
}

}  // namespace

std::string restoreFailure(const std::vector<std::string>& causes) {
    std::string text(kRestoreFailed);
    if (!causes.empty()) {
        text += "：" + joinFailures(causes);
    }
    return text;
}

namespace CoolingLease {

void restoreAuto(const std::vector<int>& ids, CoolingHardware& hardware) {
    bool failed = false;
    std::vector<std::string> causes;
    for (const int id : ids) {
        try {
            hardware.setManual(id, false);
        } catch (...) {
            failed = true;
            try {
                causes.push_back(causeOfFailure(id));
            } catch (...) {
                // It has no text, or there is no memory for it. The other fans come first.
            }
        }
    }
    if (failed) {
        throw ScopeError(restoreFailure(causes), ResultCode::notReturned);
    }
}

void handBackAfter(const std::vector<int>& ids, CoolingHardware& hardware,
                   const std::function<void()>& act) {
    try {
        act();
    } catch (...) {
        try {
            restoreAuto(ids, hardware);
        } catch (...) {
            // Dropped: the user is to hear what ended the lease, not what followed from it.
        }
        throw;
    }
    restoreAuto(ids, hardware);
}

}  // namespace CoolingLease
}  // namespace ferovane
