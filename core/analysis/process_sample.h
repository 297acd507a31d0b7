// One process in one list of processes, with what it has used since it started. A plain value.
#pragma once

#include <cstdint>
#include <string>

namespace ferovane {

struct ProcessSample {
    std::int32_t pid = 0;
    std::int32_t parentPid = 0;
    std::uint64_t started = 0;  // rises from process to process; with the pid it identifies one
    std::uint64_t cpuNanoseconds = 0;
    std::uint64_t diskReadBytes = 0, diskWriteBytes = 0;
    std::string name;
    std::uint32_t uid = 0;          // of the user that it runs for
    std::uint64_t memoryBytes = 0;  // physical footprint, as the system charges it

    bool operator==(const ProcessSample&) const = default;
};

}  // namespace ferovane
