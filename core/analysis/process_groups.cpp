#include "core/analysis/process_groups.h"

#include <cstdint>
#include <optional>

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
