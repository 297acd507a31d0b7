// Base types and result codes of the kernel interfaces.
#pragma once

#include <cstdint>

typedef unsigned int natural_t;
typedef int integer_t;
typedef int kern_return_t;
typedef unsigned int mach_port_t;
typedef mach_port_t mach_port_name_t;
typedef mach_port_t ipc_space_t;
typedef mach_port_t task_port_t;
typedef mach_port_t host_t;
typedef unsigned int mach_msg_type_number_t;
typedef unsigned long vm_size_t;

#define MACH_PORT_NULL 0

#define KERN_SUCCESS 0
#define KERN_INVALID_ARGUMENT 4
#define KERN_FAILURE 5
#define MACH_SEND_INVALID_DEST 0x10000003  // the port of a message is dead or zero
