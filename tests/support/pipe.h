// A pipe between threads, or between this process and its children.
#pragma once

#include <unistd.h>

#include <stdexcept>

namespace ferovane::testing {

struct Pipe {
    Pipe() {
        if (::pipe(ends) != 0) {
            throw std::runtime_error("no pipe");
        }
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    ~Pipe() {
        closeEnd(0);
        closeEnd(1);
    }
    void closeEnd(int end) {
        if (ends[end] >= 0) {
            ::close(ends[end]);
            ends[end] = -1;
        }
    }
    // One side waits for the other's word.
    void tell() const { (void)!::write(ends[1], "!", 1); }
    void await() const {
        char mark = 0;
        (void)!::read(ends[0], &mark, 1);
    }

    int ends[2] = {-1, -1};  // to read, to write
};

}  // namespace ferovane::testing
