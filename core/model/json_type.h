// The description of one C++ type from which the JSON codec reads and writes its values.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>

namespace ferovane {

enum class JsonDates { secondsSinceReference, iso8601 };

// A value without parts, as it stands in a text.
using JsonScalar = std::variant<std::nullptr_t, bool, std::int64_t, double, std::string_view>;

// Why a value does not suit the member that it was found for.
enum class JsonProblem {
    none,
    wrongType,
    outOfRange,
    unknownValue,
    invalidDate,
    invalidUuid,
    duplicate
};

enum class JsonShape {
    scalar,
    optional,     // left out of a record when absent
    list,         // an array of items
    record,       // an object of known members
    dictionary,   // an object whose names are the keys of a map
    alternating,  // an array of key, value, key, value: how a map with enumerated keys is written
};

struct JsonType;

struct JsonMember {
    std::string_view name;
    const JsonType* type;
    void* (*place)(void* record);
    const void* (*value)(const void* record);
};

// Which of the parts below are set follows from the shape. Everything is static data made by
// JsonForm; a new type needs a record with jsonFields() or a JsonForm, never a new shape.
struct JsonType {
    JsonShape shape;
    std::string_view noun;  // what a user is told stands here: "文本"

    // Scalars. The text that `write` returns may lie in `scratch`.
    JsonProblem (*read)(void* value, const JsonScalar& scalar, JsonDates dates) = nullptr;
    JsonScalar (*write)(const void* value, JsonDates dates, std::string& scratch) = nullptr;

    // Optionals, lists and maps: what they hold, and a place for one more of it. `key` matters to
    // maps only; null, with the reason in `problem`, for a key that cannot be added.
    const JsonType* item = nullptr;
    void* (*add)(void* container, std::string_view key, JsonProblem& problem) = nullptr;
    // Shows each thing held, in order, until `visit` has seen all.
    using Visit = void (*)(void* context, std::string_view key, const void* item);
    void (*each)(const void* container, Visit visit, void* context) = nullptr;

    // Records: at most 64 members, and a bit for each that must not be missing.
    const JsonMember* members = nullptr;
    std::size_t memberCount = 0;
    std::uint64_t required = 0;
};

inline constexpr std::size_t kMaxJsonMembers = 64;

}  // namespace ferovane
