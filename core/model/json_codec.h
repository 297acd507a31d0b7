// JSON texts of records, in both directions, from the one declaration that each record has.
#pragma once

#include <string>
#include <string_view>

#include "core/model/json_form.h"
#include "core/model/json_type.h"

namespace ferovane {

struct JsonStyle {
    JsonDates dates = JsonDates::secondsSinceReference;
    bool pretty = false;      // one member a line, two spaces a level
    bool sortedKeys = false;  // by the bytes of their names, else as declared
};

// Containers may nest this deep, whether or not anybody looks into them.
inline constexpr int kMaxJsonDepth = 16;

// The untyped halves; `value` points to what `type` describes.
std::string encodeJson(const JsonType& type, const void* value, const JsonStyle& style);
void decodeJson(std::string_view text, const JsonType& type, void* value, JsonDates dates);

// The text of a value, without a line feed at its end and, unless pretty, without any. Numbers are
// written with as few digits as read back to the same number, invalid UTF-8 as U+FFFD. Throws
// ScopeError, naming the member, for a number that is not finite.
template <class T>
std::string encodeJson(const T& value, const JsonStyle& style = {}) {
    return encodeJson(JsonForm<T>::type, &value, style);
}

// The value that a text holds. Refuses what encoding could not have made: malformed text, anything
// before or after the value (a byte order mark and zero bytes included), invalid UTF-8, nesting
// beyond kMaxJsonDepth, a name twice in one object, a missing member, a value of another type or
// outside its member's range, a number too large for a double. Members that nobody knows are
// passed over, but held to the same rules; null is accepted for an optional member.
// Throws ScopeError with a short text of our own that names the member ("powerPlan.source"); it
// never repeats values of the input. Uses constant stack, however deep the input nests.
template <class T>
T decodeJson(std::string_view text, JsonDates dates = JsonDates::secondsSinceReference) {
    T value{};
    decodeJson(text, JsonForm<T>::type, &value, dates);
    return value;
}

}  // namespace ferovane
