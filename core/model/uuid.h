// A universally unique identifier in its canonical 36-character text form.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ferovane {

struct Uuid {
    std::array<std::uint8_t, 16> bytes{};

    static Uuid random();  // version 4, from the system's entropy
    // Hexadecimal digits of either case in groups of 8-4-4-4-12; nothing else.
    static std::optional<Uuid> parse(std::string_view text);
    std::string text() const;  // upper case

    bool operator==(const Uuid&) const = default;
};

}  // namespace ferovane
