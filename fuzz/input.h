// A fuzzer's input: choices off the front, the rest is what comes through the door.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace ferovane::fuzzing {

inline std::string_view textOf(const std::uint8_t* data, std::size_t size) {
    return size == 0 ? std::string_view()
                     : std::string_view(reinterpret_cast<const char*>(data), size);
}

// Never fails: what is missing at the end reads as zero bytes, so that a cut input still means
// something.
class Input {
public:
    explicit Input(std::string_view bytes) : rest_(bytes) {}

    template <class T>
    T take() {
        static_assert(std::is_arithmetic_v<T> && !std::is_same_v<T, bool>);
        std::array<char, sizeof(T)> bytes{};
        const std::string_view taken = take(bytes.size());
        std::copy(taken.begin(), taken.end(), bytes.begin());
        return std::bit_cast<T>(bytes);
    }

    std::string_view take(std::size_t count) {
        const std::string_view taken = rest_.substr(0, count);
        rest_.remove_prefix(taken.size());
        return taken;
    }

    bool choose() { return (take<std::uint8_t>() & 1) != 0; }

    std::string_view rest() const { return rest_; }
    bool empty() const { return rest_.empty(); }

private:
    std::string_view rest_;
};

}  // namespace ferovane::fuzzing
