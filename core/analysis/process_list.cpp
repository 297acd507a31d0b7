#include "core/analysis/process_list.h"

#include <algorithm>
#include <limits>

namespace ferovane {
namespace {

constexpr std::size_t kInitialCapacity = 1024;  // a desktop at rest has some hundreds
constexpr std::size_t kMostProcesses = 65536;   // more than any kernel's limit

// Assigning to a sample that held another process before reuses the memory of its name.
void assign(const FVProcessSnapshot& entry, ProcessSample& sample) {
    constexpr auto kNoParent = std::uint32_t{std::numeric_limits<std::int32_t>::max()};
    sample.pid = entry.pid;
    sample.parentPid =
        entry.parent_pid < kNoParent ? static_cast<std::int32_t>(entry.parent_pid) : 0;
    sample.started = entry.started;
    sample.cpuNanoseconds = entry.cpu_ns;
    sample.diskReadBytes = entry.disk_read_bytes;
    sample.diskWriteBytes = entry.disk_write_bytes;
    sample.name = entry.name;
    sample.uid = entry.uid;
    sample.memoryBytes = entry.memory_bytes;
}

}  // namespace

ProcessList::ProcessList() : entries_(kInitialCapacity) {}

std::optional<std::size_t> ProcessList::fill() {
    for (;;) {
        const int count =
            fv_process_snapshot(entries_.data(), static_cast<int>(entries_.size()), &inaccessible_);
        if (count < 0) {
            return std::nullopt;
        }
        const auto filled = static_cast<std::size_t>(count);
        if (filled < entries_.size() || entries_.size() >= kMostProcesses) {
            return filled;
        }
        entries_.resize(entries_.size() * 2);  // a full buffer may have cut the list short
    }
}

std::optional<std::span<const ProcessSample>> ProcessList::read() {
    const std::optional<std::size_t> count = fill();
    if (count.value_or(0) == 0) {
        return std::nullopt;
    }
    samples_.resize(std::max(samples_.size(), *count));
    for (std::size_t i = 0; i < *count; ++i) {
        assign(entries_[i], samples_[i]);
    }
    return std::span<const ProcessSample>(samples_).first(*count);
}

}  // namespace ferovane
