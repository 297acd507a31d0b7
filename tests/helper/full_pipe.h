// A pipe whose reader has stopped reading.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <string>

namespace ferovane::testing {

// Fills a pipe to its last byte: the next write to it blocks, however short.
inline void fillPipe(int writingEnd) {
    ::fcntl(writingEnd, F_SETFL, O_NONBLOCK);
    const std::string filling(4096, 'x');
    for (std::size_t size = filling.size(); size > 0; size /= 2) {
        while (::write(writingEnd, filling.data(), size) > 0) {
        }
    }
    ::fcntl(writingEnd, F_SETFL, 0);
}

}  // namespace ferovane::testing
