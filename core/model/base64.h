// Reading base64, the form in which a curve travels as a command's argument.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ferovane {

// The bytes of a base64 text. Absent unless the text is exactly what an encoder writes: the
// standard alphabet, padded with "=" to a multiple of four, unused bits zero, nothing else.
std::optional<std::string> decodeBase64(std::string_view text);

}  // namespace ferovane
