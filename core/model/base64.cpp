#include "core/model/base64.h"

#include <cstddef>
#include <cstdint>

namespace ferovane {
namespace {

// The six bits that a character stands for.
std::optional<std::uint32_t> sextet(char c) {
    if (c >= 'A' && c <= 'Z') {
        return static_cast<std::uint32_t>(c - 'A');
    }
    if (c >= 'a' && c <= 'z') {
        return static_cast<std::uint32_t>(c - 'a') + 26;
    }
    if (c >= '0' && c <= '9') {
        return static_cast<std::uint32_t>(c - '0') + 52;
    }
    if (c == '+' || c == '/') {
        return c == '+' ? 62 : 63;
    }
    return std::nullopt;
}

}  // namespace

std::optional<std::string> decodeBase64(std::string_view text) {
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    std::size_t padding = 0;
    while (padding < 2 && !text.empty() && text.back() == '=') {
        text.remove_suffix(1);
        ++padding;
    }

    std::string bytes;
    bytes.reserve(text.size() / 4 * 3 + 2);
    std::uint32_t bits = 0;
    unsigned held = 0;  // bits not yet written out
    for (const char c : text) {
        const auto value = sextet(c);
        if (!value) {
            return std::nullopt;
        }
        bits = bits << 6 | *value;
        held += 6;
        if (held >= 8) {
            held -= 8;
            bytes += static_cast<char>(bits >> held & 0xFF);
        }
    }
    // A final character carries bits beyond the last byte; an encoder leaves them zero.
    if ((bits & ((1U << held) - 1)) != 0) {
        return std::nullopt;
    }
    return bytes;
}

}  // namespace ferovane
