// What holds for every text that the JSON codec accepts, for every one that it refuses, and for
// every curve that a text holds.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "core/fan/fan_curve.h"
#include "core/model/json_codec.h"
#include "core/model/scope_error.h"
#include "core/model/utf8.h"
#include "fuzz/property.h"

namespace ferovane::fuzzing {

// Whether an action is admitted. A refusal is shown to a user and travels in a reply.
template <class Action>
bool admits(const Action& action) {
    constexpr std::size_t kLongestRefusal = 250;
    try {
        action();
        return true;
    } catch (const ScopeError& error) {
        const std::string& message = error.message();
        require(!message.empty() && message.size() <= kLongestRefusal,
                "a refusal says something and does not repeat its input");
        require(!firstInvalidUtf8(message) && message.find('\n') == std::string::npos,
                "a refusal is one line of well-formed text");
        return false;
    }
}

template <class T>
void checkAccepted(const T& value, JsonDates dates = JsonDates::secondsSinceReference) {
    const std::string text = encodeJson(value, {.dates = dates});
    require(!firstInvalidUtf8(text) && text.find('\n') == std::string::npos,
            "encoded text is one line of well-formed text");
    const T again = decodeJson<T>(text, dates);
    require(again == value, "what was accepted is encoded and decoded to an equal value");
    require(encodeJson(again, {.dates = dates}) == text, "equal values have equal texts");
    constexpr std::size_t kLayoutsShare = 8;
    if (sampled(text, kLayoutsShare)) {
        const std::string pretty =
            encodeJson(value, {.dates = dates, .pretty = true, .sortedKeys = true});
        require(decodeJson<T>(pretty, dates) == value, "layout and order make no difference");
    }
}

// The value, checked; absent when the text was refused.
template <class T>
std::optional<T> decodeChecked(std::string_view text,
                               JsonDates dates = JsonDates::secondsSinceReference) {
    std::optional<T> value;
    if (admits([&] { value = decodeJson<T>(text, dates); })) {
        checkAccepted(*value, dates);
    }
    return value;
}

inline void checkAdmittedCurve(const FanCurve& curve) {
    constexpr double kStep = 0.25;
    double before = 0;
    for (double celsius = 0; celsius <= 120; celsius += kStep) {
        const double percent = curve.percent(celsius);
        require(percent >= before && percent <= 100, "an admitted curve never falls");
        require(celsius < 90 || percent == 100, "an admitted curve is at full speed by 90 degrees");
        before = percent;
    }
}

}  // namespace ferovane::fuzzing
