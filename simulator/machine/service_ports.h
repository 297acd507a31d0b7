// The Mach ports that this process holds on the services of a machine, with their references.
#pragma once

#include <array>
#include <cstdint>
#include <mutex>

#include "simulator/machine/simulated_mac.h"

namespace simulator {

enum class ServiceKind : std::uint8_t { kNone, kController, kBattery, kConnection };

// Any thread.
class ServicePorts {
public:
    std::uint32_t add(ServiceKind kind);  // one reference; 0 when no port is left
    ServiceKind kind(std::uint32_t port);
    // Drops a reference of a port of that kind (kNone: of any service). False, and counted as an
    // error, when there is none.
    bool release(std::uint32_t port, ServiceKind kind);
    PortCounts counts();

private:
    struct Port {
        ServiceKind kind = ServiceKind::kNone;
        std::uint8_t generation = 0;  // so that a port given back is not taken for the next one
    };

    Port* find(std::uint32_t port);

    std::mutex mutex_;
    std::array<Port, 256> ports_;
    int errors_ = 0;
};

}  // namespace simulator
