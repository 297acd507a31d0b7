#include "helper/turbo_change.h"

#include "core/power/process_runner.h"

namespace ferovane {

void TurboChange::apply(bool disable) {
    const auto state = access_.turboState();
    const std::int64_t wanted = disable ? 1 : 0;
    if (state == wanted) {
        return;
    }
    // From an unknown state there is nothing to go back to.
    if (state) {
        disabledBefore_ = *state == 1;
    }
    try {
        access_.setTurbo(disable);
    } catch (const WorkStopped& stop) {
        rollBack(stop);
        throw;
    }
}

void TurboChange::rollBack(const std::exception& cause) {
    if (!disabledBefore_) {
        return;
    }
    try {
        access_.undisturbed().setTurbo(*disabledBefore_);
    } catch (const std::exception& error) {
        throw ScopeError(describe(cause) + "；睿频回退失败：" + describe(error),
                         ResultCode::notUndone);
    }
}

}  // namespace ferovane
