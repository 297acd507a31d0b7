// What came of a request, in one word for programs. The text that stands beside it is the user's.
#pragma once

#include <algorithm>
#include <array>
#include <string_view>

#include "core/model/raw_enum.h"

namespace ferovane {

enum class ResultCode {
    // Done:
    confirmed,       // what was asked of the fans is so, read back
    automatic,       // the system has the fans
    applied,         // power settings were changed, read back
    unchanged,       // they were so already
    restored,        // they are as they were before
    partlyRestored,  // but for those that somebody else has changed since
    // Refused, with nothing changed:
    invalid,      // the request breaks a rule
    unsupported,  // this machine cannot
    occupied,     // another program is in the way
    changed,      // what the request was made from is no longer so
    unreadable,   // something that has to be known cannot be read, or is not to be believed
    resources,    // the system has no memory, process or disk space left for it
    ending,       // the session ends or has ended; what it had begun was undone
    // Failed; fans and settings are back as they were, turbo may not be:
    failed,
    timeout,  // not known to be done in time
    driver,   // the turbo driver is missing, or the system does not approve of it
    // Failed, and something has stayed:
    notReturned,  // fans may still be out of the system's control
    notUndone,    // settings or turbo may still be changed, and nobody holds a record of it
    internal,     // a fault of ours
};

// What a program does about it. To ask the user is to show him the text and let him decide.
enum class Advice { none, retry, askUser, giveUp };

struct ResultCase {
    ResultCode value;
    std::string_view raw;
    Advice advice;
};

template <>
struct RawEnum<ResultCode> {
    static constexpr std::array<ResultCase, 19> cases{{
        {ResultCode::confirmed, "confirmed", Advice::none},
        {ResultCode::automatic, "automatic", Advice::none},
        {ResultCode::applied, "applied", Advice::none},
        {ResultCode::unchanged, "unchanged", Advice::none},
        {ResultCode::restored, "restored", Advice::none},
        {ResultCode::partlyRestored, "partly-restored", Advice::none},
        {ResultCode::invalid, "invalid", Advice::giveUp},
        {ResultCode::unsupported, "unsupported", Advice::giveUp},
        {ResultCode::occupied, "occupied", Advice::askUser},
        {ResultCode::changed, "changed", Advice::askUser},
        {ResultCode::unreadable, "unreadable", Advice::retry},
        {ResultCode::resources, "resources", Advice::retry},
        {ResultCode::ending, "ending", Advice::giveUp},
        {ResultCode::failed, "failed", Advice::retry},
        {ResultCode::timeout, "timeout", Advice::retry},
        {ResultCode::driver, "driver", Advice::askUser},
        {ResultCode::notReturned, "not-returned", Advice::retry},
        {ResultCode::notUndone, "not-undone", Advice::askUser},
        {ResultCode::internal, "internal", Advice::giveUp},
    }};
};

constexpr Advice adviceOf(ResultCode code) {
    const auto& cases = RawEnum<ResultCode>::cases;
    const auto found =
        std::find_if(cases.begin(), cases.end(), [&](const auto& c) { return c.value == code; });
    return found == cases.end() ? Advice::askUser : found->advice;
}

}  // namespace ferovane
