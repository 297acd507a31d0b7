// Which application each process of a list belongs to.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "core/analysis/process_sample.h"

namespace ferovane {

// Finds a process of a list by its pid in constant time: an open hash table that keeps its memory
// when it is filled anew. One owner, no locking.
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

// The positions, in the list, of the processes that lead each process's application: itself or an
// ancestor. An application is led by the process that the system's first process started, or by one
// whose parent is not in the list (it belongs to another user) or is a later process that got the
// parent's pid. `index` holds the positions of the list. Takes time linear in its length, whatever
// the chains look like. Any thread, as long as nobody changes what it is given.
void findLeaders(std::span<const ProcessSample> processes, const ProcessIndex& index,
                 std::vector<std::size_t>& leaders);

}  // namespace ferovane
