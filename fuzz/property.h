// What holds for every input of a door. A broken property ends the program, which both a fuzzer
// and the replay report with the input that did it.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string_view>

namespace ferovane::fuzzing {

inline void require(bool holds, const char* property) {
    if (!holds) {
        std::fprintf(stderr, "broken property: %s\n", property);
        std::abort();
    }
}

// Whether a check that costs much is made: for every committed input, and while a fuzzer makes up
// millions of them for one in `share`, chosen by `input` so that a finding happens again.
inline bool sampled([[maybe_unused]] std::string_view input, [[maybe_unused]] std::size_t share) {
#ifdef FEROVANE_FUZZING
    return std::hash<std::string_view>()(input) % share == 0;
#else
    return true;
#endif
}

}  // namespace ferovane::fuzzing
