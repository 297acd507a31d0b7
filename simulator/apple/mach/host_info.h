#pragma once

#include <mach/mach_types.h>

typedef integer_t host_flavor_t;
typedef integer_t* host_info_t;
typedef integer_t* host_info64_t;

#define CPU_STATE_USER 0
#define CPU_STATE_SYSTEM 1
#define CPU_STATE_IDLE 2
#define CPU_STATE_NICE 3
#define CPU_STATE_MAX 4

#define HOST_CPU_LOAD_INFO 3
#define HOST_VM_INFO64 4

struct host_cpu_load_info {
    natural_t cpu_ticks[CPU_STATE_MAX];
};
typedef struct host_cpu_load_info host_cpu_load_info_data_t;
typedef struct host_cpu_load_info* host_cpu_load_info_t;

#define HOST_CPU_LOAD_INFO_COUNT \
    (static_cast<mach_msg_type_number_t>(sizeof(host_cpu_load_info_data_t) / sizeof(integer_t)))
