#include <mach/mach.h>

#include <cstdint>

#include "shim/fv.h"
#include "shim/host_port.h"
#include "shim/system_values.h"

namespace {

bool readPages(FVMemory& memory) {
    const ferovane::shim::HostPort host;
    vm_size_t pageSize = 0;
    vm_statistics64_data_t pages{};
    mach_msg_type_number_t count = HOST_VM_INFO64_COUNT;
    // The kernel's page size is the unit of its counts; a translated process has a smaller one.
    if (host_page_size(host.get(), &pageSize) != KERN_SUCCESS ||
        host_statistics64(host.get(), HOST_VM_INFO64, reinterpret_cast<host_info64_t>(&pages),
                          &count) != KERN_SUCCESS) {
        return false;
    }
    memory.page_size = pageSize;
    memory.internal_pages = pages.internal_page_count;
    memory.purgeable_pages = pages.purgeable_count;
    memory.wired_pages = pages.wire_count;
    memory.compressed_pages = pages.compressor_page_count;
    return true;
}

}  // namespace

int fv_cpu_ticks(uint64_t* user, uint64_t* system, uint64_t* idle, uint64_t* nice_ticks) {
    if (user == nullptr || system == nullptr || idle == nullptr || nice_ticks == nullptr) {
        return -1;
    }
    *user = *system = *idle = *nice_ticks = 0;
    const ferovane::shim::HostPort host;
    host_cpu_load_info_data_t load{};
    mach_msg_type_number_t count = HOST_CPU_LOAD_INFO_COUNT;
    const kern_return_t code = host_statistics(host.get(), HOST_CPU_LOAD_INFO,
                                               reinterpret_cast<host_info_t>(&load), &count);
    if (code != KERN_SUCCESS) {
        return code;
    }
    *user = load.cpu_ticks[CPU_STATE_USER];
    *system = load.cpu_ticks[CPU_STATE_SYSTEM];
    *idle = load.cpu_ticks[CPU_STATE_IDLE];
    *nice_ticks = load.cpu_ticks[CPU_STATE_NICE];
    return 0;
}

int fv_memory(FVMemory* memory) {
    if (memory == nullptr) {
        return -1;
    }
    *memory = {};
    const bool counted = readPages(*memory);
    const auto total = ferovane::shim::systemInteger<std::uint64_t>("hw.memsize");
    memory->total_bytes = total.value_or(0);
    return counted || total ? 0 : -1;
}
