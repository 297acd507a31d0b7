// JsonForm<T>::type describes how a T stands in JSON.
//
//     bool, integers up to 64 bits signed, double, std::string, Date, Uuid
//     enumerations with a RawEnum table      their raw value, text or integer
//     std::optional<T>                       T, or nothing; null is read as nothing
//     std::vector<T>, std::deque<T>          an array
//     std::map<std::string, T>               an object
//     std::map<enumeration with text, T>     an array that alternates raw value and T
//     records with jsonFields()              an object of those members
//
// Another form is added by specialising JsonForm.
#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "core/model/date.h"
#include "core/model/json_type.h"
#include "core/model/raw_enum.h"
#include "core/model/uuid.h"

namespace ferovane {

template <class T>
struct JsonForm;

template <class T>
concept JsonRecord = requires {
    T::jsonFields();
};

template <class E>
concept RawEnumeration = std::is_enum_v<E> && requires {
    RawEnum<E>::cases.size();
};

template <class E>
using RawValueOf = std::remove_cvref_t<decltype(RawEnum<E>::cases.front().raw)>;

template <class E>
concept TextEnumeration =
    RawEnumeration<E> && std::is_convertible_v<RawValueOf<E>, std::string_view>;

template <class T>
concept JsonInteger = std::integral<T> && !std::same_as<T, bool> &&
                      (std::signed_integral<T> || sizeof(T) < sizeof(std::int64_t));

// The whole number that a scalar stands for, whether or not it was written with a fraction ("5.0");
// wrongType for anything else.
JsonProblem readJsonInteger(const JsonScalar& scalar, std::int64_t& value);

// A number from a scalar; wrongType for anything else.
JsonProblem readJsonNumber(const JsonScalar& scalar, double& value);

// A date in the given form.
JsonProblem readJsonDate(const JsonScalar& scalar, JsonDates dates, Date& value);
JsonScalar writeJsonDate(Date value, JsonDates dates, std::string& scratch);

template <>
struct JsonForm<bool> {
    static JsonProblem read(void* value, const JsonScalar& scalar, JsonDates) {
        const bool* found = std::get_if<bool>(&scalar);
        if (found == nullptr) {
            return JsonProblem::wrongType;
        }
        *static_cast<bool*>(value) = *found;
        return JsonProblem::none;
    }
    static JsonScalar write(const void* value, JsonDates, std::string&) {
        return *static_cast<const bool*>(value);
    }
    static constexpr JsonType type{JsonShape::scalar, "布尔值", &read, &write};
};

template <JsonInteger T>
struct JsonForm<T> {
    static JsonProblem read(void* value, const JsonScalar& scalar, JsonDates) {
        std::int64_t wide = 0;
        const JsonProblem problem = readJsonInteger(scalar, wide);
        if (problem != JsonProblem::none) {
            return problem;
        }
        if (!std::in_range<T>(wide)) {
            return JsonProblem::outOfRange;
        }
        *static_cast<T*>(value) = static_cast<T>(wide);
        return JsonProblem::none;
    }
    static JsonScalar write(const void* value, JsonDates, std::string&) {
        return static_cast<std::int64_t>(*static_cast<const T*>(value));
    }
    static constexpr JsonType type{JsonShape::scalar, "整数", &read, &write};
};

template <>
struct JsonForm<double> {
    static JsonProblem read(void* value, const JsonScalar& scalar, JsonDates) {
        return readJsonNumber(scalar, *static_cast<double*>(value));
    }
    static JsonScalar write(const void* value, JsonDates, std::string&) {
        return *static_cast<const double*>(value);
    }
    static constexpr JsonType type{JsonShape::scalar, "数字", &read, &write};
};

template <>
struct JsonForm<std::string> {
    static JsonProblem read(void* value, const JsonScalar& scalar, JsonDates) {
        const auto* found = std::get_if<std::string_view>(&scalar);
        if (found == nullptr) {
            return JsonProblem::wrongType;
        }
        *static_cast<std::string*>(value) = *found;
        return JsonProblem::none;
    }
    static JsonScalar write(const void* value, JsonDates, std::string&) {
        return std::string_view(*static_cast<const std::string*>(value));
    }
    static constexpr JsonType type{JsonShape::scalar, "文本", &read, &write};
};

template <>
struct JsonForm<Date> {
    static JsonProblem read(void* value, const JsonScalar& scalar, JsonDates dates) {
        return readJsonDate(scalar, dates, *static_cast<Date*>(value));
    }
    static JsonScalar write(const void* value, JsonDates dates, std::string& scratch) {
        return writeJsonDate(*static_cast<const Date*>(value), dates, scratch);
    }
    static constexpr JsonType type{JsonShape::scalar, "日期", &read, &write};
};

template <>
struct JsonForm<Uuid> {
    static JsonProblem read(void* value, const JsonScalar& scalar, JsonDates) {
        const auto* text = std::get_if<std::string_view>(&scalar);
        if (text == nullptr) {
            return JsonProblem::wrongType;
        }
        const std::optional<Uuid> found = Uuid::parse(*text);
        if (!found) {
            return JsonProblem::invalidUuid;
        }
        *static_cast<Uuid*>(value) = *found;
        return JsonProblem::none;
    }
    static JsonScalar write(const void* value, JsonDates, std::string& scratch) {
        scratch = static_cast<const Uuid*>(value)->text();
        return std::string_view(scratch);
    }
    static constexpr JsonType type{JsonShape::scalar, "文本", &read, &write};
};

template <RawEnumeration E>
struct JsonForm<E> {
    static JsonProblem read(void* value, const JsonScalar& scalar, JsonDates) {
        std::optional<E> found;
        if constexpr (TextEnumeration<E>) {
            const auto* text = std::get_if<std::string_view>(&scalar);
            if (text == nullptr) {
                return JsonProblem::wrongType;
            }
            found = fromRawValue<E>(*text);
        } else {
            std::int64_t raw = 0;
            if (const JsonProblem problem = readJsonInteger(scalar, raw);
                problem != JsonProblem::none) {
                return problem;
            }
            found = fromRawValue<E>(raw);
        }
        if (!found) {
            return JsonProblem::unknownValue;
        }
        *static_cast<E*>(value) = *found;
        return JsonProblem::none;
    }
    static JsonScalar write(const void* value, JsonDates, std::string&) {
        const auto raw = rawValue(*static_cast<const E*>(value));
        if constexpr (TextEnumeration<E>) {
            return std::string_view(raw);
        } else {
            return static_cast<std::int64_t>(raw);
        }
    }
    static constexpr JsonType type{JsonShape::scalar, TextEnumeration<E> ? "文本" : "整数", &read,
                                   &write};
};

template <class T>
struct JsonForm<std::optional<T>> {
    static void* add(void* container, std::string_view, JsonProblem&) {
        return std::addressof(static_cast<std::optional<T>*>(container)->emplace());
    }
    static void each(const void* container, JsonType::Visit visit, void* context) {
        const auto& held = *static_cast<const std::optional<T>*>(container);
        if (held) {
            visit(context, {}, std::addressof(*held));
        }
    }
    static constexpr JsonType type{JsonShape::optional,
                                   JsonForm<T>::type.noun,
                                   nullptr,
                                   nullptr,
                                   &JsonForm<T>::type,
                                   &add,
                                   &each};
};

template <class List>
struct JsonListForm {
    using Item = typename List::value_type;
    static_assert(!std::same_as<List, std::vector<bool>>, "its items have no address");

    static void* add(void* container, std::string_view, JsonProblem&) {
        return std::addressof(static_cast<List*>(container)->emplace_back());
    }
    static void each(const void* container, JsonType::Visit visit, void* context) {
        for (const Item& item : *static_cast<const List*>(container)) {
            visit(context, {}, std::addressof(item));
        }
    }
    static constexpr JsonType type{JsonShape::list,       "数组", nullptr, nullptr,
                                   &JsonForm<Item>::type, &add,   &each};
};

template <class T>
struct JsonForm<std::vector<T>> : JsonListForm<std::vector<T>> {};

template <class T>
struct JsonForm<std::deque<T>> : JsonListForm<std::deque<T>> {};

template <class T>
struct JsonForm<std::map<std::string, T>> {
    static void* add(void* container, std::string_view key, JsonProblem& problem) {
        auto [place, added] =
            static_cast<std::map<std::string, T>*>(container)->try_emplace(std::string(key));
        if (!added) {
            problem = JsonProblem::duplicate;
            return nullptr;
        }
        return std::addressof(place->second);
    }
    static void each(const void* container, JsonType::Visit visit, void* context) {
        for (const auto& [key, item] : *static_cast<const std::map<std::string, T>*>(container)) {
            visit(context, key, std::addressof(item));
        }
    }
    static constexpr JsonType type{JsonShape::dictionary, "对象", nullptr, nullptr,
                                   &JsonForm<T>::type,    &add,   &each};
};

template <TextEnumeration E, class T>
struct JsonForm<std::map<E, T>> {
    static void* add(void* container, std::string_view key, JsonProblem& problem) {
        const std::optional<E> known = fromRawValue<E>(key);
        if (!known) {
            problem = JsonProblem::unknownValue;
            return nullptr;
        }
        auto [place, added] = static_cast<std::map<E, T>*>(container)->try_emplace(*known);
        if (!added) {
            problem = JsonProblem::duplicate;
            return nullptr;
        }
        return std::addressof(place->second);
    }
    static void each(const void* container, JsonType::Visit visit, void* context) {
        for (const auto& [key, item] : *static_cast<const std::map<E, T>*>(container)) {
            visit(context, rawValue(key), std::addressof(item));
        }
    }
    static constexpr JsonType type{JsonShape::alternating, "数组", nullptr, nullptr,
                                   &JsonForm<T>::type,     &add,   &each};
};

template <JsonRecord R>
struct JsonForm<R> {
    static constexpr std::size_t count = std::tuple_size_v<decltype(R::jsonFields())>;
    static_assert(count <= kMaxJsonMembers);

    template <std::size_t Index>
    static void* place(void* record) {
        constexpr auto field = std::get<Index>(R::jsonFields());
        return std::addressof(static_cast<R*>(record)->*field.member);
    }
    template <std::size_t Index>
    static const void* value(const void* record) {
        constexpr auto field = std::get<Index>(R::jsonFields());
        return std::addressof(static_cast<const R*>(record)->*field.member);
    }
    template <std::size_t Index>
    using Member =
        std::remove_cvref_t<decltype(std::declval<R&>().*std::get<Index>(R::jsonFields()).member)>;

    template <std::size_t... Indexes>
    static constexpr std::array<JsonMember, count> list(std::index_sequence<Indexes...>) {
        return {{{std::get<Indexes>(R::jsonFields()).name, &JsonForm<Member<Indexes>>::type,
                  &place<Indexes>, &value<Indexes>}...}};
    }
    static constexpr std::array<JsonMember, count> members =
        list(std::make_index_sequence<count>{});

    static constexpr std::uint64_t requiredMembers() {
        std::uint64_t bits = 0;
        for (std::size_t i = 0; i < count; ++i) {
            if (members[i].type->shape != JsonShape::optional) {
                bits |= std::uint64_t{1} << i;
            }
        }
        return bits;
    }
    static constexpr JsonType type{
        JsonShape::record, "对象",  nullptr,        nullptr, nullptr,
        nullptr,           nullptr, members.data(), count,   requiredMembers()};
};

}  // namespace ferovane
