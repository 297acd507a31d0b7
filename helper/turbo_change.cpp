#include "helper/turbo_change.h"

namespace ferovane {

void TurboChange::apply(bool disable) {
    const auto state = access_.turboState();
    const std::int64_t wanted = disable ? 1 : 0;
    if (state == wanted) {
        return;
    }
    access_.setTurbo(disable);
    // From an unknown state there is nothing to go back to.
    if (state) {
        disabledBefore_ = *state == 1;
    }
}

void TurboChange::rollBack(const std::exception& cause) {
    if (!disabledBefore_) {
        return;
    }
    try {
        access_.setTurbo(*disabledBefore_);
    } catch (const std::exception& error) {
        throw ScopeError(describe(cause) + "；睿频回退失败：" + describe(error));
    }
}

}  // namespace ferovane
