// Enumerations that travel as text (or as an integer) keep their raw values in one table.
#pragma once

#include <algorithm>
#include <optional>
#include <string_view>

namespace ferovane {

// Specialise with `static constexpr std::array<RawCase<Enum, Raw>, N> cases`, in declaration order.
template <class Enum>
struct RawEnum;

template <class Enum, class Raw = std::string_view>
struct RawCase {
    Enum value;
    Raw raw;
};

template <class Enum>
constexpr auto rawValue(Enum value) {
    const auto& cases = RawEnum<Enum>::cases;
    const auto found =
        std::find_if(cases.begin(), cases.end(), [&](const auto& c) { return c.value == value; });
    using Raw = decltype(found->raw);
    return found == cases.end() ? Raw{} : found->raw;
}

// No value for a raw value that no case has; never a nearest match.
template <class Enum, class Raw>
constexpr std::optional<Enum> fromRawValue(const Raw& raw) {
    for (const auto& c : RawEnum<Enum>::cases) {
        if (c.raw == raw) {
            return c.value;
        }
    }
    return std::nullopt;
}

}  // namespace ferovane
