// The port that host statistics are asked through.
#pragma once

#include <mach/mach.h>

namespace ferovane::shim {

// Each mach_host_self adds a reference that must be given back; a sampler would otherwise use up
// the port's count over weeks.
class HostPort {
public:
    HostPort() : port_(mach_host_self()) {}
    HostPort(const HostPort&) = delete;
    HostPort& operator=(const HostPort&) = delete;
    ~HostPort() { mach_port_deallocate(mach_task_self(), port_); }

    mach_port_t get() const { return port_; }

private:
    mach_port_t port_;
};

}  // namespace ferovane::shim
