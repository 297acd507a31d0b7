#include "simulator/machine/service_ports.h"

namespace simulator {
namespace {

// Names look like the ones Mach gives: an index, and a generation in the low byte.
constexpr std::uint32_t kFirstIndex = 0x10;
constexpr int kGenerationBits = 8;

}  // namespace

std::uint32_t ServicePorts::add(ServiceKind kind) {
    const std::lock_guard lock(mutex_);
    for (std::size_t i = 0; i < ports_.size(); ++i) {
        Port& port = ports_[i];
        if (port.kind == ServiceKind::kNone) {
            port.kind = kind;
            ++port.generation;
            return static_cast<std::uint32_t>(kFirstIndex + i) << kGenerationBits | port.generation;
        }
    }
    return 0;
}

ServicePorts::Port* ServicePorts::find(std::uint32_t name) {
    const std::size_t index = (name >> kGenerationBits) - kFirstIndex;
    if (index >= ports_.size() || ports_[index].kind == ServiceKind::kNone ||
        ports_[index].generation != (name & 0xFF)) {
        return nullptr;
    }
    return &ports_[index];
}

ServiceKind ServicePorts::kind(std::uint32_t name) {
    const std::lock_guard lock(mutex_);
    const Port* port = find(name);
    return port != nullptr ? port->kind : ServiceKind::kNone;
}

bool ServicePorts::release(std::uint32_t name, ServiceKind kind) {
    const std::lock_guard lock(mutex_);
    Port* port = find(name);
    const bool isConnection = port != nullptr && port->kind == ServiceKind::kConnection;
    if (port == nullptr || isConnection != (kind == ServiceKind::kConnection)) {
        ++errors_;
        return false;
    }
    port->kind = ServiceKind::kNone;
    return true;
}

PortCounts ServicePorts::counts() {
    const std::lock_guard lock(mutex_);
    PortCounts counts;
    counts.errors = errors_;
    for (const Port& port : ports_) {
        counts.connections += port.kind == ServiceKind::kConnection ? 1 : 0;
        counts.services +=
            port.kind == ServiceKind::kController || port.kind == ServiceKind::kBattery ? 1 : 0;
    }
    return counts;
}

}  // namespace simulator
