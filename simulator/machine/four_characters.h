// Key and type names as the controller packs them: four characters, the first one highest.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace simulator {

// Shorter texts are filled up with blanks, as the types "ui8" and "flt" and the key "FS!" are.
constexpr std::uint32_t packed(std::string_view text) {
    std::uint32_t code = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        const char character = i < text.size() ? text[i] : ' ';
        code = code << 8 | static_cast<unsigned char>(character);
    }
    return code;
}

inline std::string unpacked(std::uint32_t code) {
    return {static_cast<char>(code >> 24), static_cast<char>(code >> 16 & 0xFF),
            static_cast<char>(code >> 8 & 0xFF), static_cast<char>(code & 0xFF)};
}

constexpr char characterAt(std::uint32_t code, int index) {
    return static_cast<char>(code >> (8 * (3 - index)) & 0xFF);
}

constexpr bool isDigit(char character) {
    return character >= '0' && character <= '9';
}

// "F0Ac": a key of one of the ten fans that a name has room for.
constexpr std::uint32_t fanKey(std::size_t fan, std::string_view suffix) {
    const char name[] = {'F', static_cast<char>('0' + fan % 10), suffix[0], suffix[1]};
    return packed({name, sizeof name});
}

}  // namespace simulator
