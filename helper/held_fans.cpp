#include "helper/held_fans.h"

#include <algorithm>
#include <cstddef>
#include <new>
#include <utility>

#include "core/fan/hand_back.h"
#include "core/model/scope_error.h"

namespace ferovane {
namespace {

// Bytes: that ten fans could not be returned, which, and that there was no memory to.
constexpr std::size_t kRoomForLastWords = 160;

// Out of range for what is no fan's index, which the sets refuse.
std::size_t bit(int fan) {
    return static_cast<std::size_t>(fan);
}

}  // namespace

HeldFans::HeldFans(CoolingHardware& hardware, FanGuardian& guardian)
    : hardware_(hardware), guardian_(guardian) {
    returning_.reserve(FanLimits::kFans);
}

void HeldFans::setManual(int fan, bool enabled) {
    if (enabled) {
        take(fan);
    } else if (!refused_.test(bit(fan))) {
        hardware_.setManual(fan, false);
        letGo(fan);
    }
}

void HeldFans::take(int fan) {
    lastWords_.reserve(kRoomForLastWords);
    const bool heldBefore = held_.test(bit(fan));
    try {
        takeIfFree(fan);
    } catch (const FanRefusal&) {
        if (!heldBefore) {
            refused_.set(bit(fan));
            letGo(fan);
        }
        throw;
    }
}

void HeldFans::takeIfFree(int fan) {
    if (!held_.test(bit(fan)) && isSomebodyElses(fan)) {
        throw FanRefusal(kFanNotAutomatic);
    }
    guardian_.fansHeld();
    held_.set(bit(fan));
    hardware_.setManual(fan, true);
}

void HeldFans::letGo(int fan) {
    const bool wasHeld = held_.test(bit(fan));
    held_.reset(bit(fan));
    if (wasHeld && held_.none()) {
        guardian_.fansReturned();
    }
}

void HeldFans::stayGuarded() {
    if (held_.any()) {
        guardian_.fansHeld();
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
    refused_.reset();
    if (held_.none()) {
        return nullptr;
    }
    returning_.clear();
    for (int fan = 0; fan < FanLimits::kFans; ++fan) {
        if (held_.test(bit(fan))) {
            returning_.push_back(fan);  // there is room for all of them
        }
    }
    try {
        CoolingLease::restoreAuto(returning_, *this);
        return nullptr;
    } catch (const std::exception& failure) {
        try {
            throw ScopeError(namingHeld(failure), ResultCode::notReturned);
        } catch (...) {
            return std::current_exception();
        }
    }
}

// What the hardware says of a fan does not always tell which one it is, and what it says of many
// may be more than there is memory for.
std::string HeldFans::namingHeld(const std::exception& failure) {
    std::string text = std::move(lastWords_);
    text.clear();
    try {
        text.reserve(userText(failure).size() + kRoomForLastWords);
        if (dynamic_cast<const ScopeError*>(&failure) == nullptr) {
            text.append(kRestoreFailed).append("：");
        }
        text.append(userText(failure));
    } catch (const std::bad_alloc&) {
        text = kRestoreFailed;
    }
    const char* separator = "（风扇 ";
    for (const int fan : returning_) {
        if (held_.test(bit(fan))) {
            text.append(separator).append(std::to_string(fan + 1));  // users count from 1
            separator = "、";
        }
    }
    text.append("）");
    return text;
}

}  // namespace ferovane
