// One process as the host's /proc shows it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace simulator {

struct ProcessFiles {
    std::string command;  // at most 15 characters, as the kernel keeps it
    char state = '?';     // R, S, D, I, T, t, Z, X
    std::int32_t parent = 0, group = 0, terminal = 0, terminalGroup = 0;
    std::int32_t niceness = 0;
    std::uint64_t userTicks = 0, systemTicks = 0, childUserTicks = 0, childSystemTicks = 0;
    std::uint64_t startTicks = 0;  // since the machine started
    std::uint64_t majorFaults = 0, residentPages = 0;
    std::uint32_t userId = 0, effectiveUserId = 0, savedUserId = 0;
    std::uint32_t groupId = 0, effectiveGroupId = 0, savedGroupId = 0;
    std::uint64_t anonymousKilobytes = 0, swappedKilobytes = 0, lockedKilobytes = 0;

    bool zombie() const { return state == 'Z' || state == 'X'; }
};

// Nothing when there is no such process, or when the id is that of a mere thread.
std::optional<ProcessFiles> readProcess(int pid);

// The name of the program file, up to 31 characters; the command when the file cannot be seen or
// the process has since renamed itself.
std::string programName(int pid, const std::string& command);

// Bytes that the process made the disk read and write; nothing when the host does not tell.
struct DiskBytes {
    std::uint64_t read = 0, written = 0;
};
std::optional<DiskBytes> readDiskBytes(int pid);

// All processes, in the host's order.
std::vector<int> listProcesses();

std::uint64_t ticksPerSecond();  // of every ticks field above

// When the machine started, in seconds since 1970.
std::uint64_t bootTimeSeconds();

}  // namespace simulator
