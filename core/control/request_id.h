// What a monitor calls one of its requests.
#pragma once

#include <cstdint>
#include <string>
#include <variant>

#include "core/model/json_form.h"

namespace ferovane {

// A whole number or a text; it comes back as it was sent.
struct RequestId {
    std::variant<std::int64_t, std::string> value;

    bool operator==(const RequestId&) const = default;
};

template <>
struct JsonForm<RequestId> {
    static JsonProblem read(void* value, const JsonScalar& scalar, JsonDates) {
        auto& id = static_cast<RequestId*>(value)->value;
        if (const auto* text = std::get_if<std::string_view>(&scalar)) {
            id.emplace<std::string>(*text);
            return JsonProblem::none;
        }
        return readJsonInteger(scalar, id.emplace<std::int64_t>());
    }
    static JsonScalar write(const void* value, JsonDates, std::string&) {
        const auto& id = static_cast<const RequestId*>(value)->value;
        if (const auto* text = std::get_if<std::string>(&id)) {
            return std::string_view(*text);
        }
        return std::get<std::int64_t>(id);
    }
    static constexpr JsonType type{JsonShape::scalar, "文本或整数", &read, &write};
};

}  // namespace ferovane
