// What holds for every text that the JSON codec accepts, and for every one that it refuses.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "core/model/json_codec.h"
#include "core/model/scope_error.h"
#include "core/model/utf8.h"
#include "fuzz/property.h"

namespace ferovane::fuzzing {

// A refusal is shown to a user and travels in a reply.
inline void checkRefusal(const ScopeError& error) {
    constexpr std::size_t kLongestRefusal = 250;
    require(!error.message().empty(), "a refusal says something");
    require(error.message().size() <= kLongestRefusal, "a refusal does not repeat its input");
    require(!firstInvalidUtf8(error.message()), "a refusal is well-formed text");
    require(error.message().find('\n') == std::string::npos, "a refusal is one line");
}

template <class T>
bool accepts(std::string_view text, JsonDates dates) {
    try {
        decodeJson<T>(text, dates);
        return true;
    } catch (const ScopeError&) {
        return false;
    }
}

template <class T>
std::string encodedChecked(const T& value, JsonDates dates) {
    std::string text = encodeJson(value, {.dates = dates});
    require(!firstInvalidUtf8(text), "encoded text is well-formed");
    require(text.find('\n') == std::string::npos, "encoded text is one line");
    return text;
}

template <class T>
void checkJourney(const T& value, const std::string& text, JsonDates dates) {
    const T again = decodeJson<T>(text, dates);
    require(again == value, "what was accepted is encoded and decoded to an equal value");
    require(encodeJson(again, {.dates = dates}) == text, "equal values have equal texts");
    constexpr std::size_t kLayoutsShare = 8;
    if (!sampled(text, kLayoutsShare)) {
        return;
    }
    require(accepts<T>(" " + text + "\n", dates), "blanks around a text make no difference");
    require(!accepts<T>(std::string_view(text).substr(0, text.size() - 1), dates) &&
                !accepts<T>(text + "}", dates),
            "a text with its end missing, or with more behind it, is refused");
    const std::string pretty =
        encodeJson(value, {.dates = dates, .pretty = true, .sortedKeys = true});
    require(decodeJson<T>(pretty, dates) == value, "layout and order make no difference");
}

template <class T>
void checkAccepted(const T& value, JsonDates dates) {
    checkJourney(value, encodedChecked(value, dates), dates);
}

// For values that are no input themselves but made of one, many at a time.
template <class T>
void checkTold(const T& value) {
    constexpr std::size_t kJourneyShare = 256;
    constexpr auto kDates = JsonDates::secondsSinceReference;
    const std::string text = encodedChecked(value, kDates);
    if (sampled(text, kJourneyShare)) {
        checkJourney(value, text, kDates);
    }
}

// The value, checked; absent when the text was refused.
template <class T>
std::optional<T> decodeChecked(std::string_view text,
                               JsonDates dates = JsonDates::secondsSinceReference) {
    std::optional<T> value;
    try {
        value = decodeJson<T>(text, dates);
    } catch (const ScopeError& error) {
        checkRefusal(error);
        return std::nullopt;
    }
    checkAccepted(*value, dates);
    return value;
}

}  // namespace ferovane::fuzzing
