// Random choices for tests that compare code with a model. The seed says everything.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <optional>
#include <random>

namespace ferovane::testing {

inline constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
inline constexpr double kInfinity = std::numeric_limits<double>::infinity();

class Dice {
public:
    explicit Dice(unsigned seed) : random_(seed) {}

    std::uint64_t bits() { return random_(); }
    // 0 to `most`, both included.
    int upTo(int most) { return static_cast<int>(random_() % (std::uint64_t(most) + 1)); }
    bool oneIn(int times) { return upTo(times - 1) == 0; }
    double pick(std::initializer_list<double> values) {
        return values.begin()[random_() % values.size()];
    }
    template <class Value>
    std::optional<Value> maybe(int absentOneIn, Value value) {
        return oneIn(absentOneIn) ? std::nullopt : std::optional<Value>(value);
    }
    template <class Choices>
    const auto& oneOf(const Choices& choices) {
        return choices[random_() % choices.size()];
    }
    std::mt19937_64& engine() { return random_; }

private:
    std::mt19937_64 random_;
};

}  // namespace ferovane::testing
