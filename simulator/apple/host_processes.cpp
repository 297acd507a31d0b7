// Processes of the host, as /proc shows them, in the kernel's own records. Only what the shim reads
// of these is filled; the rest stays zero.
#include <libproc.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "simulator/apple/host_files.h"

namespace {

using simulator::takeLine;
using simulator::takeNumber;
using simulator::takeWord;
using Buffer = std::array<char, 4096>;  // the files of a process are at most half as long

constexpr std::uint64_t kBytesPerKilobyte = 1024;

struct ProcessFiles {
    std::string command;                 // at most 15 characters, as the kernel keeps it
    char state = '?';                    // R, S, D, I, T, t, Z, X
    std::uint32_t parent = 0, user = 0;  // user: the effective one
    std::uint64_t userTicks = 0, systemTicks = 0, startTicks = 0;  // start: since the host's
    std::uint64_t anonymousKilobytes = 0, swappedKilobytes = 0;

    bool zombie() const { return state == 'Z' || state == 'X'; }
};

std::string processPath(int pid, const char* file) {
    return "/proc/" + std::to_string(pid) + "/" + file;
}

std::string_view readProcessFile(int pid, const char* file, Buffer& buffer) {
    return simulator::readHostFile(processPath(pid, file).c_str(), buffer);
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
    process.state = state.empty() ? '?' : state.front();
    bool whole = take(rest, process.parent);
    skipWords(rest, 9);  // from the group to the major faults of its children
    whole = whole && take(rest, process.userTicks) && take(rest, process.systemTicks);
    skipWords(rest, 6);  // from the ticks of its children to the timer
    return whole && take(rest, process.startTicks);
}

// The user and memory sizes; false for a thread that is not its process's first.
bool readStatus(int pid, ProcessFiles& process) {
    Buffer buffer;
    bool isProcess = false;
    for (std::string_view rest = readProcessFile(pid, "status", buffer); !rest.empty();) {
        std::string_view line = takeLine(rest);
        const std::string_view name = takeWord(line);
        if (name == "Tgid:") {
            isProcess = takeNumber<std::int32_t>(line) == pid;
        } else if (name == "Uid:") {
            take(line, process.user) && take(line, process.user);  // the second one
        } else if (name == "RssAnon:") {
            take(line, process.anonymousKilobytes);
        } else if (name == "VmSwap:") {
            take(line, process.swappedKilobytes);
        }
    }
    return isProcess;
}

// Nothing when there is no such process, or when the id is that of a mere thread.
std::optional<ProcessFiles> readProcess(int pid) {
    ProcessFiles process;
    const bool found = pid >= 1 && readStat(pid, process) && readStatus(pid, process);
    return found ? std::optional(process) : std::nullopt;
}

// The name of the program file; the command when the file cannot be seen or the process has since
// renamed itself.
std::string programName(int pid, const std::string& command) {
    Buffer target;
    const ssize_t length =
        ::readlink(processPath(pid, "exe").c_str(), target.data(), target.size());
    const std::string_view path(target.data(), static_cast<std::size_t>(length < 0 ? 0 : length));
    const std::string_view program = path.substr(path.rfind('/') + 1);
    return std::string(program.starts_with(command) ? program : command);
}

void readDiskBytes(int pid, rusage_info_v2& record) {
    Buffer buffer;
    for (std::string_view rest = readProcessFile(pid, "io", buffer); !rest.empty();) {
        std::string_view line = takeLine(rest);
        const std::string_view name = takeWord(line);
        if (name == "read_bytes:") {
            take(line, record.ri_diskio_bytesread);
        } else if (name == "write_bytes:") {
            take(line, record.ri_diskio_byteswritten);
        }
    }
}

int failWith(int error, int result) {
    errno = error;
    return result;
}

// Absolute-time units are nanoseconds here.
std::uint64_t absoluteTime(std::uint64_t ticks) {
    constexpr std::uint64_t kUnitsPerSecond = 1'000'000'000;
    return ticks * (kUnitsPerSecond / static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK)));
}

// Shorter texts leave the rest of the zeroed field alone, so a NUL always ends it.
template <std::size_t size>
void copyCut(char (&field)[size], const std::string& text) {
    std::memcpy(field, text.data(), std::min(text.size(), size - 1));
}

// The error of looking at another process, 0 when the caller may: the same user, or root.
int accessError(const std::optional<ProcessFiles>& process) {
    if (!process) {
        return ESRCH;
    }
    const uid_t caller = geteuid();
    return caller == 0 || caller == process->user ? 0 : EPERM;
}

}  // namespace

int proc_listpids(std::uint32_t type, std::uint32_t, void* buffer, int size) {
    constexpr std::size_t kSpareEntries = 20;  // for processes born between the two calls
    if (type != PROC_ALL_PIDS) {
        return failWith(EINVAL, 0);
    }
    std::vector<int> pids;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
        const std::string name = entry.path().filename().string();
        std::string_view word = name;
        if (const auto pid = takeNumber<std::int32_t>(word)) {
            pids.push_back(*pid);
        }
    }
    if (buffer == nullptr) {
        return static_cast<int>((pids.size() + kSpareEntries) * sizeof(int));
    }
    if (size < static_cast<int>(sizeof(int))) {
        return failWith(ENOMEM, 0);
    }
    const std::size_t fitting = std::min(pids.size(), static_cast<std::size_t>(size) / sizeof(int));
    std::copy_n(pids.begin(), fitting, static_cast<int*>(buffer));
    return static_cast<int>(fitting * sizeof(int));
}

int proc_pidinfo(int pid, int flavor, std::uint64_t arg, void* buffer, int size) {
    constexpr int kRecordSize = static_cast<int>(PROC_PIDTBSDINFO_SIZE);
    if (flavor != PROC_PIDTBSDINFO) {
        return failWith(EINVAL, 0);
    }
    if (size < kRecordSize) {
        return failWith(ENOMEM, 0);
    }
    const std::optional<ProcessFiles> process = readProcess(pid);
    if (process && process->zombie() && arg == 0) {
        return failWith(ESRCH, 0);
    }
    if (const int error = accessError(process)) {
        return failWith(error, 0);
    }
    proc_bsdinfo record{};
    record.pbi_pid = static_cast<std::uint32_t>(pid);
    record.pbi_ppid = process->parent;
    record.pbi_uid = process->user;
    copyCut(record.pbi_comm, process->command);
    copyCut(record.pbi_name, programName(pid, process->command));
    std::memcpy(buffer, &record, sizeof record);
    return kRecordSize;
}

int proc_pid_rusage(int pid, int flavor, rusage_info_t* buffer) {
    if (flavor != RUSAGE_INFO_V2) {
        return failWith(EINVAL, -1);
    }
    const std::optional<ProcessFiles> process = readProcess(pid);
    if (const int error = accessError(process)) {
        return failWith(error, -1);
    }
    rusage_info_v2 record{};
    record.ri_user_time = absoluteTime(process->userTicks);
    record.ri_system_time = absoluteTime(process->systemTicks);
    record.ri_phys_footprint =
        (process->anonymousKilobytes + process->swappedKilobytes) * kBytesPerKilobyte;
    record.ri_proc_start_abstime = absoluteTime(process->startTicks);
    readDiskBytes(pid, record);
    std::memcpy(static_cast<void*>(buffer), &record, sizeof record);
    return 0;
}

int proc_name(int pid, void* buffer, std::uint32_t size) {
    proc_bsdinfo record{};
    if (size < sizeof record.pbi_name) {
        return failWith(ENOMEM, 0);
    }
    if (proc_pidinfo(pid, PROC_PIDTBSDINFO, 0, &record, sizeof record) <= 0) {
        return 0;
    }
    std::memcpy(buffer, record.pbi_name, sizeof record.pbi_name);
    return static_cast<int>(std::strlen(record.pbi_name));
}

int proc_pidpath(int pid, void* buffer, std::uint32_t size) {
    auto* const path = static_cast<char*>(buffer);
    const ssize_t length = ::readlink(processPath(pid, "exe").c_str(), path, size);
    if (length <= 0) {
        return 0;
    }
    if (length >= static_cast<ssize_t>(size)) {
        return failWith(ENOMEM, 0);
    }
    path[length] = '\0';
    return static_cast<int>(length);
}
