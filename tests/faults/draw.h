// Numbers drawn by a seed, the same with every standard library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>

namespace ferovane::testing {

class Draw {
public:
    explicit Draw(std::uint64_t seed) : random_(seed) {}

    std::uint64_t below(std::uint64_t end) { return random_() % end; }
    bool oneIn(std::uint64_t count) { return below(count) == 0; }
    // In whole milliseconds, so that no rounding differs.
    double seconds(double most) {
        return static_cast<double>(below(static_cast<std::uint64_t>(most * 1000) + 1)) / 1000;
    }
    template <class Choices>
    const auto& oneOf(const Choices& choices) {
        return choices[below(choices.size())];
    }

private:
    std::mt19937_64 random_;
};

}  // namespace ferovane::testing
