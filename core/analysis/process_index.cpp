#include "core/analysis/process_index.h"

#include <algorithm>
#include <bit>

namespace ferovane {

void ProcessIndex::clear(std::size_t count) {
    const std::size_t size = std::bit_ceil(std::max<std::size_t>(count, 1) * 2);
    places_.assign(size, {});
}

// The place that holds the pid, or the empty one where it belongs.
std::size_t ProcessIndex::placeOf(std::int32_t pid) const {
    constexpr std::uint32_t kSpread = 2654435761;  // 2^32 by the golden ratio: pids are consecutive
    const std::size_t mask = places_.size() - 1;
    std::size_t place = (static_cast<std::uint32_t>(pid) * kSpread) & mask;
    while (places_[place].position != kEmpty && places_[place].pid != pid) {
        place = (place + 1) & mask;
    }
    return place;
}

void ProcessIndex::add(std::int32_t pid, std::size_t position) {
    Place& place = places_[placeOf(pid)];
    if (place.position == kEmpty) {
        place = {pid, static_cast<std::uint32_t>(position)};
    }
}

std::optional<std::size_t> ProcessIndex::find(std::int32_t pid) const {
    if (places_.empty()) {
        return std::nullopt;
    }
    const Place& place = places_[placeOf(pid)];
    return place.position == kEmpty ? std::nullopt : std::optional<std::size_t>(place.position);
}

}  // namespace ferovane
