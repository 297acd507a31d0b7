#include <libproc.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <new>

#include "shim/fv.h"
#include "shim/time_base.h"

namespace {

// Room for processes that start between asking for the size and asking for the list.
constexpr std::size_t kSpareListBytes = 1024;

struct PidList {
    std::unique_ptr<std::int32_t[]> ids;
    int count = -1;  // -1: the list could not be had
};

PidList listPids() {
    const int needed = proc_listpids(PROC_ALL_PIDS, 0, nullptr, 0);
    if (needed < 1) {
        return {};
    }
    const std::size_t bytes = static_cast<std::size_t>(needed) + kSpareListBytes;
    const std::size_t capacity = bytes / sizeof(std::int32_t);
    PidList list{std::unique_ptr<std::int32_t[]>(new (std::nothrow) std::int32_t[capacity]())};
    if (!list.ids || capacity * sizeof(std::int32_t) > std::numeric_limits<int>::max()) {
        return {};
    }
    const int listed = proc_listpids(PROC_ALL_PIDS, 0, list.ids.get(),
                                     static_cast<int>(capacity * sizeof(std::int32_t)));
    list.count = listed < 0 ? 0 : listed / static_cast<int>(sizeof(std::int32_t));
    return list;
}

// With an argument of 0 a zombie is not found: it has ended, only its parent has not looked yet.
bool readBasicRecord(std::int32_t pid, proc_bsdinfo& record) {
    return proc_pidinfo(pid, PROC_PIDTBSDINFO, 0, &record, sizeof record) ==
           static_cast<int>(sizeof record);
}

// The oldest version of the record with disk counters, so every supported system knows it.
bool readUsage(std::int32_t pid, rusage_info_v2& usage) {
    return proc_pid_rusage(pid, RUSAGE_INFO_V2, reinterpret_cast<rusage_info_t*>(&usage)) == 0;
}

std::uint64_t saturatingSum(std::uint64_t first, std::uint64_t second) {
    const std::uint64_t sum = first + second;
    return sum < first ? std::numeric_limits<std::uint64_t>::max() : sum;
}

void copyName(const proc_bsdinfo& basic, FVProcessSnapshot& entry) {
    if (proc_name(entry.pid, entry.name, sizeof entry.name) <= 0) {
        static_assert(sizeof basic.pbi_comm < sizeof entry.name);
        std::memset(entry.name, 0, sizeof entry.name);
        std::memcpy(entry.name, basic.pbi_comm, sizeof basic.pbi_comm);
    }
    entry.name[sizeof entry.name - 1] = '\0';
}

bool readProcess(std::int32_t pid, FVProcessSnapshot& entry) {
    rusage_info_v2 usage{};
    proc_bsdinfo basic{};
    if (!readUsage(pid, usage) || !readBasicRecord(pid, basic)) {
        return false;
    }
    entry = {};
    entry.pid = pid;
    entry.parent_pid = basic.pbi_ppid;
    entry.uid = basic.pbi_uid;
    entry.started = usage.ri_proc_start_abstime;
    entry.cpu_ns =
        ferovane::shim::nanosecondsOf(saturatingSum(usage.ri_user_time, usage.ri_system_time));
    entry.memory_bytes = usage.ri_phys_footprint;
    entry.disk_read_bytes = usage.ri_diskio_bytesread;
    entry.disk_write_bytes = usage.ri_diskio_byteswritten;
    copyName(basic, entry);
    return true;
}

}  // namespace

int fv_process_snapshot(FVProcessSnapshot* entries, int capacity, int* inaccessible) {
    if (capacity < 1 || entries == nullptr) {
        return -1;
    }
    int unreadable = 0;
    int filled = 0;
    const PidList list = listPids();
    for (int index = 0; index < list.count && filled < capacity; ++index) {
        const std::int32_t pid = list.ids[static_cast<std::size_t>(index)];
        if (pid < 1) {
            continue;
        }
        if (readProcess(pid, entries[filled])) {
            ++filled;
        } else {
            ++unreadable;
        }
    }
    if (inaccessible != nullptr) {
        *inaccessible = unreadable;
    }
    return list.count < 0 ? -1 : filled;
}

bool fv_owner_alive(int32_t pid, uint32_t uid) {
    proc_bsdinfo record{};
    return readBasicRecord(pid, record) && record.pbi_uid == uid;
}
