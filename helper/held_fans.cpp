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

}  // namespace

HeldFans::HeldFans(CoolingHardware& hardware, FanGuardian& guardian)
    : hardware_(hardware), guardian_(guardian) {
    returning_.reserve(SMCVerification::kFanIndexLimit);
}

void HeldFans::setManual(int fan, bool enabled) {
    if (enabled) {
        take(fan);
    } else if (refused_.count(fan) == 0) {
        hardware_.setManual(fan, false);
        letGo(fan);
    }
}

void HeldFans::take(int fan) {
    lastWords_.reserve(kRoomForLastWords);
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
        throw FanRefusal(kFanNotAutomatic);
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
    if (held_.empty()) {
        return nullptr;
    }
    try {
        returning_ = held_.ascending();  // a copy: each that is returned is held no longer
        CoolingLease::restoreAuto(returning_, *this);
        return nullptr;
    } catch (const std::exception& failure) {
        try {
            throw ScopeError(namingHeld(failure));
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
    for (const int fan : held_.ascending()) {
        text.append(separator).append(std::to_string(fan + 1));  // users count from 1
        separator = "、";
    }
    text.append("）");
    return text;
}

}  // namespace ferovane
