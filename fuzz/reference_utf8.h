// UTF-8 by brute force, to hold the product's tables against: a sequence is a character when the
// code point that its bits spell encodes to the same bytes again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace ferovane::fuzzing::reference {

inline bool isScalarValue(std::uint32_t point) {
    return point <= 0x10FFFF && !(point >= 0xD800 && point <= 0xDFFF);
}

inline std::string encodedUtf8(std::uint32_t point) {
    const auto byte = [](std::uint32_t bits) { return static_cast<char>(bits & 0xFF); };
    const auto following = [&](int shift) { return byte(0x80 | (point >> shift & 0x3F)); };
    if (point < 0x80) {
        return {byte(point)};
    }
    if (point < 0x800) {
        return {byte(0xC0 | point >> 6), following(0)};
    }
    if (point < 0x10000) {
        return {byte(0xE0 | point >> 12), following(6), following(0)};
    }
    return {byte(0xF0 | point >> 18), following(12), following(6), following(0)};
}

// The bytes that a lead byte announces, itself included; 0 for a byte that leads nothing.
inline std::size_t announcedLength(unsigned char lead) {
    return lead < 0x80   ? 1
           : lead < 0xC0 ? 0
           : lead < 0xE0 ? 2
           : lead < 0xF0 ? 3
           : lead < 0xF8 ? 4
                         : 0;
}

// Whether some well-formed character of the announced length begins with these bytes: tried by
// filling up with the lowest and the highest bits there are, and with those around the surrogates.
inline bool beginsCharacter(std::string_view bytes) {
    const std::size_t length = announcedLength(static_cast<unsigned char>(bytes[0]));
    if (length == 0 || bytes.size() > length) {
        return false;
    }
    std::uint32_t point =
        static_cast<unsigned char>(bytes[0]) & (0xFFU >> (length == 1 ? 1 : length + 1));
    for (const char c : bytes.substr(1)) {
        const auto next = static_cast<unsigned char>(c);
        if ((next & 0xC0) != 0x80) {
            return false;
        }
        point = point << 6 | (next & 0x3FU);
    }
    const auto open = static_cast<unsigned>(6 * (length - bytes.size()));
    const std::uint32_t lowest = point << open;
    const std::uint32_t highest = lowest | ((std::uint32_t{1} << open) - 1);
    for (const std::uint32_t tried : {lowest, highest, std::uint32_t{0x80}, std::uint32_t{0x800},
                                      std::uint32_t{0x10000}, std::uint32_t{0x10FFFF}}) {
        if (tried >= lowest && tried <= highest && isScalarValue(tried) &&
            encodedUtf8(tried).size() == length) {
            return true;
        }
    }
    return false;
}

// Each longest sequence that could have become a character, and did not, becomes one U+FFFD.
inline std::string repairedUtf8(std::string_view text) {
    std::string repaired;
    while (!text.empty()) {
        std::size_t length = 1;
        while (length < text.size() && beginsCharacter(text.substr(0, length + 1))) {
            ++length;
        }
        const bool whole = beginsCharacter(text.substr(0, length)) &&
                           length == announcedLength(static_cast<unsigned char>(text[0]));
        repaired += whole ? std::string(text.substr(0, length)) : encodedUtf8(0xFFFD);
        text.remove_prefix(length);
    }
    return repaired;
}

}  // namespace ferovane::fuzzing::reference
