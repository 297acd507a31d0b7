// What a tool has written to the file that took its output.
#pragma once

#include <cstddef>
#include <string>

namespace ferovane {

// The file from its beginning, whatever its offset, as valid UTF-8 of at most `limit` bytes, cut
// between characters. What cannot be read counts as not written.
std::string readToolOutput(int descriptor, std::size_t limit);

}  // namespace ferovane
