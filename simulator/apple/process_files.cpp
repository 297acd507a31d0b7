#include "simulator/apple/process_files.h"

#include <unistd.h>

#include <charconv>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string_view>

namespace simulator {
namespace {

std::string processPath(int pid, const char* file) {
    return "/proc/" + std::to_string(pid) + "/" + file;
}

// "pid (command) state …": the command may itself hold spaces and parentheses, so the last closing
// one ends it.
bool readStat(int pid, ProcessFiles& process) {
    // A process that ends between the opening and the reading makes the read fail, which only a
    // stream's own operations report without an exception.
    std::ifstream file(processPath(pid, "stat"));
    std::ostringstream content;
    content << file.rdbuf();
    const std::string line = content.str();
    const std::size_t open = line.find('(');
    const std::size_t close = line.rfind(')');
    if (open == std::string::npos || close == std::string::npos) {
        return false;
    }
    process.command = line.substr(open + 1, close - open - 1);
    std::istringstream rest(line.substr(close + 1));
    std::int64_t ignored = 0;
    std::uint64_t minorFaults = 0, childMinorFaults = 0, childMajorFaults = 0, flags = 0, bytes = 0;
    rest >> process.state >> process.parent >> process.group >> ignored >> process.terminal >>
        process.terminalGroup >> flags >> minorFaults >> childMinorFaults >> process.majorFaults >>
        childMajorFaults >> process.userTicks >> process.systemTicks >> process.childUserTicks >>
        process.childSystemTicks >> ignored >> process.niceness >> ignored >> ignored >>
        process.startTicks >> bytes >> process.residentPages;
    return !rest.fail();
}

// The ids and memory sizes; false for a thread that is not its process's first.
bool readStatus(int pid, ProcessFiles& process) {
    std::ifstream file(processPath(pid, "status"));
    std::string line;
    bool isProcess = false;
    while (std::getline(file, line)) {
        std::istringstream fields(line);
        std::string name;
        fields >> name;
        if (name == "Tgid:") {
            int processId = 0;
            isProcess = fields >> processId && processId == pid;
        } else if (name == "Uid:") {
            fields >> process.userId >> process.effectiveUserId >> process.savedUserId;
        } else if (name == "Gid:") {
            fields >> process.groupId >> process.effectiveGroupId >> process.savedGroupId;
        } else if (name == "RssAnon:") {
            fields >> process.anonymousKilobytes;
        } else if (name == "VmSwap:") {
            fields >> process.swappedKilobytes;
        } else if (name == "VmLck:") {
            fields >> process.lockedKilobytes;
        }
    }
    return isProcess;
}

std::optional<int> processId(std::string_view name) {
    int pid = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), pid);
    return error == std::errc() && end == name.data() + name.size() ? std::optional(pid)
                                                                    : std::nullopt;
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
    std::error_code error;
    const std::string program =
        std::filesystem::read_symlink(processPath(pid, "exe"), error).filename().string();
    return program.starts_with(command) ? program.substr(0, kLongest) : command;
}

std::optional<DiskBytes> readDiskBytes(int pid) {
    std::ifstream file(processPath(pid, "io"));
    DiskBytes disk;
    std::string name;
    std::uint64_t value = 0;
    bool told = false;
    while (file >> name >> value) {
        if (name == "read_bytes:") {
            disk.read = value;
        } else if (name == "write_bytes:") {
            disk.written = value;
            told = true;
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
    std::ifstream file("/proc/stat");
    std::string line;
    while (std::getline(file, line)) {
        std::istringstream fields(line);
        std::string name;
        std::uint64_t seconds = 0;
        if (fields >> name >> seconds && name == "btime") {
            return seconds;
        }
    }
    return 0;
}

}  // namespace simulator
