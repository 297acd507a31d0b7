// What a session answers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>

#include "core/control/fan_session_status.h"
#include "core/control/lease_ending.h"
#include "core/control/request_id.h"
#include "core/model/json_fields.h"
#include "core/model/result_code.h"
#include "core/power/power_transaction.h"

namespace ferovane {

struct ControlReply {
    bool ok = false;
    std::string message;                                // for the user, on success too
    std::optional<std::string> session = std::nullopt;  // the running fan session's id
    std::optional<std::string> profile = std::nullopt;  // its profile's command word
    std::optional<std::string> label = std::nullopt;    // its mode's name
    std::optional<std::int64_t> turbo = std::nullopt;   // 0 not loaded, 1 turbo disabled
    std::optional<FanSessionStatus> fanStatus = std::nullopt;
    std::optional<PowerOutcome> power = std::nullopt;  // set by whoever ran a power command
    // Only in the reply to a request with an id.
    std::optional<RequestId> id = std::nullopt;       // the request's
    std::optional<std::string> code = std::nullopt;   // a ResultCode's word; there may be new ones
    std::optional<LeaseEnding> ended = std::nullopt;  // of "status": the last lease, told once

    void say(std::string_view text, ResultCode result) {
        message = text;
        code = rawValue(result);
    }

    // The code as far as it is known here.
    std::optional<ResultCode> knownCode() const {
        return code ? fromRawValue<ResultCode>(*code) : std::nullopt;
    }

    bool operator==(const ControlReply&) const = default;

    static constexpr auto jsonFields() {
        using R = ControlReply;
        return std::tuple{
            jsonField("ok", &R::ok),
            jsonField("message", &R::message),
            jsonField("session", &R::session),
            jsonField("profile", &R::profile),
            jsonField("label", &R::label),
            jsonField("turbo", &R::turbo, JsonNote{"0: its driver is not loaded; 1: turbo is off"}),
            jsonField("power", &R::power),
            jsonField("fanStatus", &R::fanStatus),
            jsonField("id", &R::id, JsonNote{"the request's"}),
            jsonField("code", &R::code, JsonExamples{jsonWordsOf<ResultCode>()},
                      JsonNote{"with an id only; there may be new ones"}),
            jsonField("ended", &R::ended, JsonNote{"to \"status\" only, once after each lease"})};
    }
};

// The reply as it can be sent: when its line would be longer than a channel accepts, the message
// loses its middle, between characters, and says so there: what failed first and what failed last
// both stay. Everything else stays; it is never that long.
ControlReply fittedToLine(ControlReply reply);

}  // namespace ferovane
