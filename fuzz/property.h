// What every door has: its entry, a reader of its input, and a way to say what holds. A broken
// property ends the program, which both a fuzzer and the replay report with the input that did it.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

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

// Choices off the front, the rest is what comes through the door. Never fails: what is missing at
// the end reads as zero bytes, so that a cut input still means something.
class Input {
public:
    Input(const std::uint8_t* data, std::size_t size)
        : rest_(reinterpret_cast<const char*>(data), size) {}

    template <class T>
    T take() {
        std::array<char, sizeof(T)> bytes{};
        std::ranges::copy(take(bytes.size()), bytes.begin());
        return std::bit_cast<T>(bytes);
    }
    std::uint8_t byte() { return take<std::uint8_t>(); }
    std::string_view take(std::size_t count) {
        const std::string_view taken = rest_.substr(0, count);
        rest_.remove_prefix(taken.size());
        return taken;
    }

    std::string_view rest() const { return rest_; }
    bool empty() const { return rest_.empty(); }

private:
    std::string_view rest_;
};

}  // namespace ferovane::fuzzing
