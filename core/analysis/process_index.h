// Finding a process of a list by its pid in constant time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace ferovane {

// An open hash table that keeps its memory when it is filled anew.
class ProcessIndex {
public:
    // Forgets everything and makes room for that many.
    void clear(std::size_t count);

    // Of two processes with one pid the first stays.
    void add(std::int32_t pid, std::size_t position);

    std::optional<std::size_t> find(std::int32_t pid) const;

private:
    struct Place {
        std::int32_t pid = 0;
        std::uint32_t position = kEmpty;
    };
    static constexpr std::uint32_t kEmpty = UINT32_MAX;

    std::size_t placeOf(std::int32_t pid) const;

    std::vector<Place> places_;  // a power of two of them, at least twice as many as are used
    int shift_ = 0;              // from 32 bits to as many as a place has
};

}  // namespace ferovane
