#pragma once

#include <mach/host_info.h>
#include <mach/mach_types.h>
#include <mach/vm_statistics.h>

extern "C" {

extern mach_port_t mach_task_self_;
#define mach_task_self() mach_task_self_

mach_port_t mach_host_self(void);
kern_return_t mach_port_deallocate(ipc_space_t task, mach_port_name_t name);

// count: capacity of the record on entry, filled part on return, both in 32-bit words.
kern_return_t host_statistics(host_t host, host_flavor_t flavor, host_info_t record,
                              mach_msg_type_number_t* count);
kern_return_t host_statistics64(host_t host, host_flavor_t flavor, host_info64_t record,
                                mach_msg_type_number_t* count);
kern_return_t host_page_size(host_t host, vm_size_t* bytes);

}  // extern "C"
