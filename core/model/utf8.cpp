#include "core/model/utf8.h"

#include <cstdint>
#include <cstring>

namespace ferovane {
namespace {

constexpr std::uint64_t kHighBits = 0x8080808080808080U;

constexpr bool isContinuation(unsigned char byte) {
    return (byte & 0xC0) == 0x80;
}

// The bytes after a lead byte, and the narrower range of the first of them that keeps out overlong
// forms, surrogates and what lies above U+10FFFF.
struct Lead {
    std::size_t following = 0;  // 0: not a lead byte
    unsigned char low = 0x80, high = 0xBF;
};

Lead leadOf(unsigned char byte) {
    if (byte >= 0xC2 && byte <= 0xDF) {
        return {1};
    }
    if (byte >= 0xE0 && byte <= 0xEF) {
        return {2, static_cast<unsigned char>(byte == 0xE0 ? 0xA0 : 0x80),
                static_cast<unsigned char>(byte == 0xED ? 0x9F : 0xBF)};
    }
    if (byte >= 0xF0 && byte <= 0xF4) {
        return {3, static_cast<unsigned char>(byte == 0xF0 ? 0x90 : 0x80),
                static_cast<unsigned char>(byte == 0xF4 ? 0x8F : 0xBF)};
    }
    return {};
}

struct Sequence {
    std::size_t length;  // bytes, at least 1
    bool valid;          // false: as many bytes as could have begun a character
};

// What begins at `at`, where there is at least one byte.
Sequence sequenceAt(std::string_view text, std::size_t at) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    if (byte(at) < 0x80) {
        return {1, true};
    }
    const Lead lead = leadOf(byte(at));
    std::size_t length = 1;
    for (; length <= lead.following && at + length < text.size(); ++length) {
        const unsigned char next = byte(at + length);
        const bool fits =
            length == 1 ? next >= lead.low && next <= lead.high : isContinuation(next);
        if (!fits) {
            break;
        }
    }
    return {length, lead.following > 0 && length == lead.following + 1};
}

// The first byte at or after `at` that is not ASCII, or the end.
std::size_t skipAscii(std::string_view text, std::size_t at) {
    for (; at + sizeof(std::uint64_t) <= text.size(); at += sizeof(std::uint64_t)) {
        std::uint64_t word = 0;
        std::memcpy(&word, text.data() + at, sizeof word);
        if ((word & kHighBits) != 0) {
            break;
        }
    }
    while (at < text.size() && static_cast<unsigned char>(text[at]) < 0x80) {
        ++at;
    }
    return at;
}

}  // namespace

std::optional<std::size_t> firstInvalidUtf8(std::string_view text) {
    for (std::size_t at = skipAscii(text, 0); at < text.size(); at = skipAscii(text, at)) {
        const Sequence sequence = sequenceAt(text, at);
        if (!sequence.valid) {
            return at;
        }
        at += sequence.length;
    }
    return std::nullopt;
}

std::string repairUtf8(std::string_view text) {
    std::string repaired;
    repaired.reserve(text.size());
    while (const auto invalid = firstInvalidUtf8(text)) {
        repaired += text.substr(0, *invalid);
        repaired += kReplacementCharacter;
        text.remove_prefix(*invalid + sequenceAt(text, *invalid).length);
    }
    repaired += text;
    return repaired;
}

std::string_view utf8Prefix(std::string_view text, std::size_t limit) {
    if (text.size() <= limit) {
        return text;
    }
    std::size_t end = limit;
    while (end > 0 && isContinuation(static_cast<unsigned char>(text[end]))) {
        --end;
    }
    return text.substr(0, end);
}

}  // namespace ferovane
