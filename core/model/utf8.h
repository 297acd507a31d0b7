// Checks and repairs of UTF-8 text that came from outside.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace ferovane {

inline constexpr std::string_view kReplacementCharacter = "\xEF\xBF\xBD";  // U+FFFD

// The offset of the first byte that is not part of a well-formed character (overlong forms,
// surrogates and anything above U+10FFFF are not); absent when there is none.
std::optional<std::size_t> firstInvalidUtf8(std::string_view text);

// The text with each ill-formed sequence, taken as long as it could still have become a character,
// replaced by one U+FFFD.
std::string repairUtf8(std::string_view text);

// The beginning of a well-formed text in at most `limit` bytes, cut between characters.
std::string_view utf8Prefix(std::string_view text, std::size_t limit);

}  // namespace ferovane
