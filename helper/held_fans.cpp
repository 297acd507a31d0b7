#include "helper/held_fans.h"

#include <algorithm>
#include <string>

#include "core/fan/cooling_lease.h"
#include "core/fan/fan_checks.h"
#include "core/fan/fan_refusal.h"
#include "core/model/scope_error.h"

namespace ferovane {

void HeldFans::setManual(int fan, bool enabled) {
    if (enabled) {
        take(fan);
    } else if (refused_.count(fan) == 0) {
        hardware_.setManual(fan, false);
        letGo(fan);
    }
}

void HeldFans::take(int fan) {
    const bool heldBefore = held_.count(fan) > 0;
    try {
        takeIfFree(fan);
    } catch (const FanRefusal&) {
        if (!heldBefore) {
            refused_.insert(fan);
            letGo(fan);
        }
        throw;
    }
}

void HeldFans::takeIfFree(int fan) {
    if (held_.count(fan) == 0 && isSomebodyElses(fan)) {
        throw FanRefusal(FanChecks::kNotAutomatic);
    }
    if (held_.empty()) {
        guardian_.fansHeld();
    }
    held_.insert(fan);
    hardware_.setManual(fan, true);
}

void HeldFans::letGo(int fan) {
    if (held_.erase(fan) > 0 && held_.empty()) {
        guardian_.fansReturned();
    }
}

// An unknown state is no objection: on machines that switch fans by a mask no fan's is known while
// another one is held.
bool HeldFans::isSomebodyElses(int fan) {
    const std::vector<FanReading> fans = hardware_.fans();
    return std::any_of(fans.begin(), fans.end(), [fan](const FanReading& reading) {
        return reading.id == fan && reading.manual.value_or(false);
    });
}

std::exception_ptr HeldFans::returnHeld() noexcept {
    refused_.clear();
    try {
        const std::vector<int> held(held_.begin(), held_.end());
        if (!held.empty()) {
            CoolingLease::restoreAuto(held, *this);
        }
        return nullptr;
    } catch (...) {
        return namingHeld(std::current_exception());
    }
}

// What the hardware says of a fan does not always tell which one it is.
std::exception_ptr HeldFans::namingHeld(std::exception_ptr failure) const noexcept {
    try {
        std::rethrow_exception(failure);
    } catch (const std::exception& error) {
        try {
            std::string fans;
            for (const int fan : held_) {
                fans += (fans.empty() ? "" : "、") + std::to_string(fan + 1);  // users count from 1
            }
            return std::make_exception_ptr(ScopeError(describe(error) + "（风扇 " + fans + "）"));
        } catch (...) {
            return failure;  // no memory left to say more
        }
    }
}

}  // namespace ferovane
