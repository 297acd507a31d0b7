#include "core/analysis/process_groups.h"

#include <algorithm>
#include <bit>

namespace ferovane {
namespace {

constexpr std::int32_t kFirstProcess = 1;  // starts applications, and takes in orphans

constexpr std::size_t kUnknown = SIZE_MAX;
constexpr std::size_t kOnThisPath = SIZE_MAX - 1;

std::optional<std::size_t> parentOf(const ProcessSample& process,
                                    std::span<const ProcessSample> processes,
                                    const ProcessIndex& index) {
    if (process.parentPid <= kFirstProcess) {
        return std::nullopt;
    }
    const auto parent = index.find(process.parentPid);
    return parent && processes[*parent].started <= process.started ? parent : std::nullopt;
}

}  // namespace

void ProcessIndex::clear(std::size_t count) {
    const std::size_t size = std::bit_ceil(std::max<std::size_t>(count, 1) * 2);
    places_.assign(size, {});
    shift_ = 32 - std::countr_zero(size);
}

// The place that holds the pid, or the empty one where it belongs.
std::size_t ProcessIndex::placeOf(std::int32_t pid) const {
    // 2^32 by the golden ratio: the upper bits of the product spread pids that follow one another
    // as well as pids that are far, but evenly, apart.
    constexpr std::uint32_t kSpread = 2654435761;
    const std::size_t mask = places_.size() - 1;
    std::size_t place = (static_cast<std::uint32_t>(pid) * kSpread) >> shift_;
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

void findLeaders(std::span<const ProcessSample> processes, const ProcessIndex& index,
                 std::vector<std::size_t>& leaders) {
    leaders.assign(processes.size(), kUnknown);
    std::vector<std::size_t> path;
    for (std::size_t start = 0; start < processes.size(); ++start) {
        std::size_t at = start;
        path.clear();
        while (leaders[at] == kUnknown) {
            leaders[at] = kOnThisPath;
            path.push_back(at);
            at = parentOf(processes[at], processes, index).value_or(at);
        }
        // Meeting the path again means its top (or, in a list that contradicts itself, a circle).
        const std::size_t leader = leaders[at] == kOnThisPath ? at : leaders[at];
        for (const std::size_t process : path) {
            leaders[process] = leader;
        }
    }
}

}  // namespace ferovane
