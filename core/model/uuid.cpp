#include "core/model/uuid.h"

#include <cstddef>
#include <random>

namespace ferovane {
namespace {

constexpr std::size_t kTextLength = 36;

// A hyphen stands before these bytes.
constexpr bool startsGroup(std::size_t byte) {
    return byte == 4 || byte == 6 || byte == 8 || byte == 10;
}

// The value of a hexadecimal digit, or 16.
constexpr unsigned digitValue(char c) {
    if (c >= '0' && c <= '9') {
        return static_cast<unsigned>(c - '0');
    }
    if (c >= 'a' && c <= 'f') {
        return static_cast<unsigned>(c - 'a') + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return static_cast<unsigned>(c - 'A') + 10;
    }
    return 16;
}

}  // namespace

Uuid Uuid::random() {
    Uuid uuid;
    std::random_device entropy;
    for (std::size_t i = 0; i < uuid.bytes.size(); i += 4) {
        const std::uint32_t word = entropy();
        for (std::size_t j = 0; j < 4; ++j) {
            uuid.bytes[i + j] = static_cast<std::uint8_t>(word >> (8 * j));
        }
    }
    uuid.bytes[6] = static_cast<std::uint8_t>((uuid.bytes[6] & 0x0F) | 0x40);  // version 4
    uuid.bytes[8] = static_cast<std::uint8_t>((uuid.bytes[8] & 0x3F) | 0x80);  // variant 1
    return uuid;
}

std::optional<Uuid> Uuid::parse(std::string_view text) {
    if (text.size() != kTextLength) {
        return std::nullopt;
    }
    Uuid uuid;
    std::size_t at = 0;
    for (std::size_t i = 0; i < uuid.bytes.size(); ++i) {
        if (startsGroup(i) && text[at++] != '-') {
            return std::nullopt;
        }
        const unsigned high = digitValue(text[at++]);
        const unsigned low = digitValue(text[at++]);
        if (high > 15 || low > 15) {
            return std::nullopt;
        }
        uuid.bytes[i] = static_cast<std::uint8_t>(high << 4 | low);
    }
    return uuid;
}

std::string Uuid::text() const {
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string text;
    text.reserve(kTextLength);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (startsGroup(i)) {
            text += '-';
        }
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 0x0F];
    }
    return text;
}

}  // namespace ferovane
