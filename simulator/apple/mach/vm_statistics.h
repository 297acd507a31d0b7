#pragma once

#include <mach/mach_types.h>

struct alignas(8) vm_statistics64 {
    natural_t free_count;
    natural_t active_count;
    natural_t inactive_count;
    natural_t wire_count;
    std::uint64_t zero_fill_count;
    std::uint64_t reactivations;
    std::uint64_t pageins;
    std::uint64_t pageouts;
    std::uint64_t faults;
    std::uint64_t cow_faults;
    std::uint64_t lookups;
    std::uint64_t hits;
    std::uint64_t purges;
    natural_t purgeable_count;
    natural_t speculative_count;  // part of free_count
    std::uint64_t decompressions;
    std::uint64_t compressions;
    std::uint64_t swapins;
    std::uint64_t swapouts;
    natural_t compressor_page_count;
    natural_t throttled_count;
    natural_t external_page_count;
    natural_t internal_page_count;
    std::uint64_t total_uncompressed_pages_in_compressor;
};
typedef struct vm_statistics64 vm_statistics64_data_t;
typedef struct vm_statistics64* vm_statistics64_t;

#define HOST_VM_INFO64_COUNT \
    (static_cast<mach_msg_type_number_t>(sizeof(vm_statistics64_data_t) / sizeof(integer_t)))
