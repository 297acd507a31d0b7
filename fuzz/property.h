// What holds for every input of a door. A broken property ends the program, which both a fuzzer
// and the replay report with the input that did it.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace ferovane::fuzzing {

inline void require(bool holds, const char* property) {
    if (!holds) {
        std::fprintf(stderr, "broken property: %s\n", property);
        std::abort();
    }
}

}  // namespace ferovane::fuzzing
