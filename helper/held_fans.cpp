#include "helper/held_fans.h"

#include "core/fan/cooling_lease.h"

namespace ferovane {

void HeldFans::setManual(int fan, bool enabled) {
    if (enabled) {
        if (held_.empty()) {
            guardian_.fansHeld();
        }
        held_.insert(fan);
        hardware_.setManual(fan, true);
    } else {
        hardware_.setManual(fan, false);
        if (held_.erase(fan) > 0 && held_.empty()) {
            guardian_.fansReturned();
        }
    }
}

std::exception_ptr HeldFans::returnHeld() noexcept {
    try {
        const std::vector<int> held(held_.begin(), held_.end());
        if (!held.empty()) {
            CoolingLease::restoreAuto(held, *this);
        }
        return nullptr;
    } catch (...) {
        return std::current_exception();
    }
}

}  // namespace ferovane
