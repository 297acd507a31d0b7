#include <libproc.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "simulator/apple/host_files.h"
#include "simulator/apple/process_files.h"
#include "simulator/apple/recent_process.h"

namespace {

using simulator::ProcessFiles;

constexpr std::uint64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr std::uint64_t kBytesPerKilobyte = 1024;

// States of a process in the kernel's numbering.
enum : std::uint32_t { kRunning = 2, kSleeping = 3, kStopped = 4, kZombie = 5 };

int failWith(int error, int result) {
    errno = error;
    return result;
}

std::uint32_t kernelState(char state) {
    switch (state) {
        case 'R':
            return kRunning;
        case 'T':
        case 't':
            return kStopped;
        case 'Z':
        case 'X':
            return kZombie;
        default:
            return kSleeping;
    }
}

// Absolute-time units are nanoseconds here.
std::uint64_t absoluteTime(std::uint64_t ticks) {
    return ticks * (kNanosecondsPerSecond / simulator::ticksPerSecond());
}

// Shorter texts leave the rest of the zeroed field alone, so a NUL always ends it.
template <std::size_t size>
void copyText(char (&field)[size], const std::string& text) {
    std::memcpy(field, text.data(), std::min(text.size(), size - 1));
}

// The error of looking at another process, 0 when the caller may: the same user, or root.
int accessError(const std::optional<ProcessFiles>& process) {
    if (!process) {
        return ESRCH;
    }
    const uid_t caller = geteuid();
    return caller == 0 || caller == process->effectiveUserId ? 0 : EPERM;
}

proc_bsdinfo basicRecord(int pid, const ProcessFiles& process) {
    const std::uint64_t tick = simulator::ticksPerSecond();
    proc_bsdinfo record{};
    record.pbi_status = kernelState(process.state);
    record.pbi_pid = static_cast<std::uint32_t>(pid);
    record.pbi_ppid = static_cast<std::uint32_t>(process.parent);
    record.pbi_uid = process.effectiveUserId;
    record.pbi_gid = process.effectiveGroupId;
    record.pbi_ruid = process.userId;
    record.pbi_rgid = process.groupId;
    record.pbi_svuid = process.savedUserId;
    record.pbi_svgid = process.savedGroupId;
    copyText(record.pbi_comm, process.command);
    copyText(record.pbi_name, simulator::programName(pid, process.command));
    record.pbi_pgid = static_cast<std::uint32_t>(process.group);
    record.e_tdev = static_cast<std::uint32_t>(process.terminal);
    record.e_tpgid = static_cast<std::uint32_t>(process.terminalGroup);
    record.pbi_nice = process.niceness;
    record.pbi_start_tvsec = simulator::bootTimeSeconds() + process.startTicks / tick;
    record.pbi_start_tvusec = process.startTicks % tick * (1'000'000 / tick);
    return record;
}

rusage_info_v2 usageRecord(int pid, const ProcessFiles& process) {
    rusage_info_v2 record{};
    record.ri_user_time = absoluteTime(process.userTicks);
    record.ri_system_time = absoluteTime(process.systemTicks);
    record.ri_child_user_time = absoluteTime(process.childUserTicks);
    record.ri_child_system_time = absoluteTime(process.childSystemTicks);
    record.ri_pageins = process.majorFaults;
    record.ri_wired_size = process.lockedKilobytes * kBytesPerKilobyte;
    record.ri_resident_size = process.residentPages * simulator::pageBytes();
    record.ri_phys_footprint =
        (process.anonymousKilobytes + process.swappedKilobytes) * kBytesPerKilobyte;
    record.ri_proc_start_abstime = absoluteTime(process.startTicks);
    if (const auto disk = simulator::readDiskBytes(pid)) {
        record.ri_diskio_bytesread = disk->read;
        record.ri_diskio_byteswritten = disk->written;
    }
    return record;
}

}  // namespace

int proc_listpids(std::uint32_t type, std::uint32_t, void* buffer, int size) {
    constexpr std::size_t kSpareEntries = 20;  // for processes born between the two calls
    if (type != PROC_ALL_PIDS) {
        return failWith(EINVAL, 0);
    }
    const std::vector<int> pids = simulator::listProcesses();
    if (buffer == nullptr) {
        return static_cast<int>((pids.size() + kSpareEntries) * sizeof(int));
    }
    if (size < static_cast<int>(sizeof(int))) {
        return failWith(ENOMEM, 0);
    }
    const std::size_t fitting = std::min(pids.size(), static_cast<std::size_t>(size) / sizeof(int));
    std::memcpy(buffer, pids.data(), fitting * sizeof(int));
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
    thread_local simulator::RecentProcess recent;
    if (const proc_bsdinfo* record = recent.recall(pid)) {
        std::memcpy(buffer, record, sizeof *record);
        return kRecordSize;
    }
    const std::optional<ProcessFiles> process = simulator::readProcess(pid);
    if (process && process->zombie() && arg == 0) {
        return failWith(ESRCH, 0);
    }
    if (const int error = accessError(process)) {
        return failWith(error, 0);
    }
    const proc_bsdinfo record = basicRecord(pid, *process);
    recent.remember(pid, record);
    std::memcpy(buffer, &record, sizeof record);
    return kRecordSize;
}

int proc_pid_rusage(int pid, int flavor, rusage_info_t* buffer) {
    // Each version of the record is the beginning of the next.
    constexpr std::array<std::size_t, 3> kSizes{96, 144, sizeof(rusage_info_v2)};
    if (flavor < RUSAGE_INFO_V0 || flavor > RUSAGE_INFO_V2) {
        return failWith(EINVAL, -1);
    }
    const std::optional<ProcessFiles> process = simulator::readProcess(pid);
    if (const int error = accessError(process)) {
        return failWith(error, -1);
    }
    const rusage_info_v2 record = usageRecord(pid, *process);
    std::memcpy(static_cast<void*>(buffer), &record, kSizes[static_cast<std::size_t>(flavor)]);
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
    const char* name = record.pbi_name[0] != '\0' ? record.pbi_name : record.pbi_comm;
    const std::size_t length = std::strlen(name);
    std::memcpy(buffer, name, length + 1);
    return static_cast<int>(length);
}

int proc_pidpath(int pid, void* buffer, std::uint32_t size) {
    const std::string link = "/proc/" + std::to_string(pid) + "/exe";
    auto* const path = static_cast<char*>(buffer);
    const ssize_t length = ::readlink(link.c_str(), path, size);
    if (length <= 0) {
        return 0;
    }
    if (length >= static_cast<ssize_t>(size)) {
        return failWith(ENOMEM, 0);
    }
    path[length] = '\0';
    return static_cast<int>(length);
}
