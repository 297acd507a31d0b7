// The host's header; while a simulated machine is attached, its own log takes the lines.
#pragma once

#include_next <syslog.h>

extern "C" void simulator_syslog(int priority, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// The implementation needs the host's name.
#ifndef SIMULATOR_HOST_NAMES
#define syslog simulator_syslog
#endif
