#include "simulator/apple/process_files.h"

#include <unistd.h>

#include <array>
#include <cstddef>
#include <filesystem>
#include <string_view>

#include "simulator/apple/host_files.h"

namespace simulator {
namespace {

using Buffer = std::array<char, 4096>;  // the files of a process are at most half as long

std::string processPath(int pid, const char* file) {
    return "/proc/" + std::to_string(pid) + "/" + file;
}

std::string_view readProcessFile(int pid, const char* file, Buffer& buffer) {
    return readHostFile(processPath(pid, file).c_str(), buffer);
}

// False when the text holds no number there; the target keeps its value.
template <class Integer>
bool take(std::string_view& text, Integer& target) {
    const std::optional<Integer> number = takeNumber<Integer>(text);
    target = number.value_or(target);
    return number.has_value();
}

void skipWords(std::string_view& text, int count) {
    for (; count > 0; --count) {
        takeWord(text);
    }
}

// "pid (command) state …": the command may itself hold spaces and parentheses, so the last closing
// one ends it.
bool readStat(int pid, ProcessFiles& process) {
    Buffer buffer;
    const std::string_view line = readProcessFile(pid, "stat", buffer);
    const std::size_t open = line.find('(');
    const std::size_t close = line.rfind(')');
    if (open == std::string_view::npos || close == std::string_view::npos) {
        return false;
    }
    process.command = line.substr(open + 1, close - open - 1);
    std::string_view rest = line.substr(close + 1);
    const std::string_view state = takeWord(rest);
    if (state.empty()) {
        return false;
    }
    process.state = state.front();
    bool whole = take(rest, process.parent) && take(rest, process.group);
    skipWords(rest, 1);  // session
    whole = whole && take(rest, process.terminal) && take(rest, process.terminalGroup);
    skipWords(rest, 3);  // flags, minor faults of its own and of its children
    whole = whole && take(rest, process.majorFaults);
    skipWords(rest, 1);  // major faults of its children
    whole = whole && take(rest, process.userTicks) && take(rest, process.systemTicks) &&
            take(rest, process.childUserTicks) && take(rest, process.childSystemTicks);
    skipWords(rest, 1);  // priority
    whole = whole && take(rest, process.niceness);
    skipWords(rest, 2);  // threads, timer
    whole = whole && take(rest, process.startTicks);
    skipWords(rest, 1);  // virtual size
    return whole && take(rest, process.residentPages);
}

// The ids and memory sizes; false for a thread that is not its process's first.
bool readStatus(int pid, ProcessFiles& process) {
    Buffer buffer;
    bool isProcess = false;
    for (std::string_view rest = readProcessFile(pid, "status", buffer); !rest.empty();) {
        std::string_view line = takeLine(rest);
        const std::string_view name = takeWord(line);
        if (name == "Tgid:") {
            isProcess = takeNumber<std::int32_t>(line) == pid;
        } else if (name == "Uid:") {
            take(line, process.userId) && take(line, process.effectiveUserId) &&
                take(line, process.savedUserId);
        } else if (name == "Gid:") {
            take(line, process.groupId) && take(line, process.effectiveGroupId) &&
                take(line, process.savedGroupId);
        } else if (name == "RssAnon:") {
            take(line, process.anonymousKilobytes);
        } else if (name == "VmSwap:") {
            take(line, process.swappedKilobytes);
        } else if (name == "VmLck:") {
            take(line, process.lockedKilobytes);
        }
    }
    return isProcess;
}

std::optional<int> processId(std::string_view name) {
    return takeNumber<std::int32_t>(name);
}

std::uint64_t readBootTime() {
    const std::string file = readHostFile("/proc/stat").value_or("");
    for (std::string_view rest = file; !rest.empty();) {
        std::string_view line = takeLine(rest);
        if (takeWord(line) == "btime") {
            return takeNumber<std::uint64_t>(line).value_or(0);
        }
    }
    return 0;
}

}  // namespace

std::optional<ProcessFiles> readProcess(int pid) {
    ProcessFiles process;
    if (pid < 1 || !readStat(pid, process) || !readStatus(pid, process)) {
        return std::nullopt;
    }
    return process;
}

std::string programName(int pid, const std::string& command) {
    constexpr std::size_t kLongest = 31;
    Buffer target;
    const ssize_t length =
        ::readlink(processPath(pid, "exe").c_str(), target.data(), target.size());
    const std::string_view path(target.data(), static_cast<std::size_t>(length < 0 ? 0 : length));
    const std::string_view program = path.substr(path.rfind('/') + 1);
    return std::string(program.starts_with(command) ? program.substr(0, kLongest) : command);
}

std::optional<DiskBytes> readDiskBytes(int pid) {
    Buffer buffer;
    DiskBytes disk;
    bool told = false;
    for (std::string_view rest = readProcessFile(pid, "io", buffer); !rest.empty();) {
        std::string_view line = takeLine(rest);
        const std::string_view name = takeWord(line);
        if (name == "read_bytes:") {
            take(line, disk.read);
        } else if (name == "write_bytes:") {
            told = take(line, disk.written);
        }
    }
    return told ? std::optional(disk) : std::nullopt;
}

std::vector<int> listProcesses() {
    std::vector<int> pids;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
        if (const std::optional<int> pid = processId(entry.path().filename().string())) {
            pids.push_back(*pid);
        }
    }
    return pids;
}

std::uint64_t ticksPerSecond() {
    return static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK));
}

std::uint64_t bootTimeSeconds() {
    static const std::uint64_t seconds = readBootTime();
    return seconds;
}

}  // namespace simulator
