// Processor and memory counters of the host, in the kernel's own records. Every call is fresh: the
// platform's limit on how often a program is served new figures is not imitated.
#include <mach/mach.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>
#include <string_view>

#include "simulator/apple/host_files.h"
#include "simulator/apple/live_objects.h"

mach_port_t mach_task_self_ = 0x103;

namespace {

using simulator::MemoryInfo;

constexpr mach_port_t kHostPort = 0x1003;
constexpr kern_return_t kInvalidName = 15;  // the kernel's code for a name that holds no right

std::atomic<std::int64_t> hostReferences{0};

// A port that nobody holds is dead.
bool isLiveHost(mach_port_t host) {
    return host == kHostPort && hostReferences.load() > 0;
}

// The kernel counts nice time as user time, and waiting for a disk as idle; so does this. Time
// taken by a hypervisor is neither.
bool readCpuLoad(host_cpu_load_info_data_t& load) {
    const std::string file = simulator::readHostFile("/proc/stat").value_or("");
    std::string_view rest = file;
    simulator::takeWord(rest);  // the line's label
    std::uint64_t user = 0, nice = 0, system = 0, idle = 0, diskWait = 0, hard = 0, soft = 0;
    for (std::uint64_t* ticks : {&user, &nice, &system, &idle, &diskWait, &hard, &soft}) {
        const auto number = simulator::takeNumber<std::uint64_t>(rest);
        if (!number) {
            return false;
        }
        *ticks = *number;
    }
    load.cpu_ticks[CPU_STATE_USER] = static_cast<natural_t>(user + nice);
    load.cpu_ticks[CPU_STATE_SYSTEM] = static_cast<natural_t>(system + hard + soft);
    load.cpu_ticks[CPU_STATE_IDLE] = static_cast<natural_t>(idle + diskWait);
    load.cpu_ticks[CPU_STATE_NICE] = 0;
    return true;
}

// File-backed memory is external, anonymous and shared memory internal, compressed swap the
// compressor's. What is left over belongs to the kernel and is wired. So the usual formula for
// used memory (internal - purgeable + wired + compressor) gives all that is neither free nor cache.
bool readVmStatistics(vm_statistics64_data_t& statistics) {
    const std::optional<MemoryInfo> memory = simulator::readMemoryInfo();
    if (!memory) {
        return false;
    }
    const std::uint64_t cache = memory->kilobytes("Cached") + memory->kilobytes("Buffers") +
                                memory->kilobytes("SReclaimable");
    const std::uint64_t shared = memory->kilobytes("Shmem");
    const std::uint64_t external = cache - std::min(cache, shared);
    const std::uint64_t internal = memory->kilobytes("AnonPages") + shared;
    const std::uint64_t compressor = memory->kilobytes("Zswap");
    const std::uint64_t total = memory->kilobytes("MemTotal");
    const std::uint64_t known = memory->kilobytes("MemFree") + external + internal + compressor;

    const std::uint64_t pageKilobytes = simulator::pageBytes() / 1024;
    const auto pages = [pageKilobytes](std::uint64_t kilobytes) {
        return static_cast<natural_t>(kilobytes / pageKilobytes);
    };
    statistics = {};
    statistics.free_count = pages(memory->kilobytes("MemFree"));
    statistics.wire_count = pages(total - std::min(total, known));
    statistics.external_page_count = pages(external);
    statistics.internal_page_count = pages(internal);
    statistics.compressor_page_count = pages(compressor);
    return true;
}

template <class Record>
kern_return_t answer(host_t host, bool (*read)(Record&), integer_t* words,
                     mach_msg_type_number_t* count) {
    constexpr mach_msg_type_number_t kWords = sizeof(Record) / sizeof(integer_t);
    Record record{};
    if (!isLiveHost(host)) {
        return MACH_SEND_INVALID_DEST;
    }
    if (*count < kWords || !read(record)) {
        return KERN_FAILURE;
    }
    std::memcpy(words, &record, sizeof record);
    *count = kWords;
    return KERN_SUCCESS;
}

}  // namespace

namespace simulator {

std::int64_t hostPortReferences() {
    return hostReferences.load();
}

}  // namespace simulator

mach_port_t mach_host_self(void) {
    hostReferences.fetch_add(1);
    return kHostPort;
}

kern_return_t mach_port_deallocate(ipc_space_t, mach_port_name_t name) {
    std::int64_t held = hostReferences.load();
    do {
        if (name != kHostPort || held == 0) {
            return kInvalidName;
        }
    } while (!hostReferences.compare_exchange_weak(held, held - 1));
    return KERN_SUCCESS;
}

kern_return_t host_statistics(host_t host, host_flavor_t flavor, host_info_t record,
                              mach_msg_type_number_t* count) {
    return flavor == HOST_CPU_LOAD_INFO ? answer(host, readCpuLoad, record, count)
                                        : KERN_INVALID_ARGUMENT;
}

kern_return_t host_statistics64(host_t host, host_flavor_t flavor, host_info64_t record,
                                mach_msg_type_number_t* count) {
    return flavor == HOST_VM_INFO64 ? answer(host, readVmStatistics, record, count)
                                    : KERN_INVALID_ARGUMENT;
}

kern_return_t host_page_size(host_t host, vm_size_t* bytes) {
    if (!isLiveHost(host)) {
        return MACH_SEND_INVALID_DEST;
    }
    *bytes = simulator::pageBytes();
    return KERN_SUCCESS;
}
