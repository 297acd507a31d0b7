#include <sys/sysctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "simulator/apple/attached_machine.h"
#include "simulator/apple/host_files.h"

namespace {

using simulator::AttachedMachine;
using Bytes = std::optional<std::string>;  // nothing: the name does not exist on this machine

constexpr std::int32_t kPressureNormal = 1;
constexpr std::int32_t kPressureWarning = 2;
constexpr std::int32_t kPressureCritical = 4;

// Without an attached machine, the share of the host's memory that is still available decides.
constexpr std::uint64_t kWarningBelowPercent = 15;
constexpr std::uint64_t kCriticalBelowPercent = 5;

template <class Integer>
Bytes integerBytes(Integer value) {
    return std::string(reinterpret_cast<const char*>(&value), sizeof value);
}

// What the machine publishes; nothing for an empty text.
Bytes textBytes(const std::string& text) {
    return text.empty() ? std::nullopt : Bytes(std::string(text.c_str(), text.size() + 1));
}

Bytes pressureLevel(AttachedMachine* machine) {
    if (machine != nullptr) {
        const auto level = machine->memoryPressureLevel();
        return level ? integerBytes(static_cast<std::int32_t>(*level)) : std::nullopt;
    }
    const auto memory = simulator::readMemoryInfo();
    if (!memory) {
        return std::nullopt;
    }
    const std::uint64_t percent =
        memory->kilobytes("MemAvailable") * 100 / memory->kilobytes("MemTotal");
    if (percent < kCriticalBelowPercent) {
        return integerBytes(kPressureCritical);
    }
    return integerBytes(percent < kWarningBelowPercent ? kPressureWarning : kPressureNormal);
}

// "model name : Some Processor"; hosts of some architectures have no such line.
Bytes brandString(AttachedMachine* machine) {
    if (machine != nullptr) {
        return textBytes(machine->cpuBrand());
    }
    const std::string file = simulator::readHostFile("/proc/cpuinfo").value_or("");
    for (std::string_view rest = file; !rest.empty();) {
        const std::string_view line = simulator::takeLine(rest);
        const std::size_t colon = line.find(": ");
        if (line.starts_with("model name") && colon != std::string::npos) {
            return textBytes(std::string(line.substr(colon + 2)));
        }
    }
    return std::nullopt;
}

Bytes productVersion(AttachedMachine* machine) {
    return machine != nullptr ? textBytes(machine->systemVersion()) : std::nullopt;
}

// On Intel the name is missing altogether.
Bytes arm64(AttachedMachine* machine) {
    return machine != nullptr && machine->appleSilicon() ? integerBytes<std::int32_t>(1)
                                                         : std::nullopt;
}

Bytes memorySize(AttachedMachine*) {
    return integerBytes(static_cast<std::uint64_t>(sysconf(_SC_PHYS_PAGES)) *
                        simulator::pageBytes());
}

Bytes valueOf(std::string_view name) {
    using Reader = Bytes (*)(AttachedMachine*);
    static const std::map<std::string_view, Reader> readers{
        {"kern.memorystatus_vm_pressure_level", pressureLevel},
        {"machdep.cpu.brand_string", brandString},
        {"kern.osproductversion", productVersion},
        {"hw.optional.arm64", arm64},
        {"hw.memsize", memorySize}};
    const auto reader = readers.find(name);
    return reader != readers.end() ? reader->second(simulator::attachedMachine()) : std::nullopt;
}

int failWith(int error) {
    errno = error;
    return -1;
}

}  // namespace

int sysctlbyname(const char* name, void* oldValue, std::size_t* oldSize, void* newValue,
                 std::size_t) {
    const Bytes value = valueOf(name);
    if (!value) {
        return failWith(ENOENT);
    }
    if (newValue != nullptr) {
        return failWith(EPERM);
    }
    if (oldSize == nullptr) {
        return 0;
    }
    if (oldValue == nullptr) {
        *oldSize = value->size();
        return 0;
    }
    // What fits is copied even when the call then fails.
    const std::size_t copied = std::min(*oldSize, value->size());
    std::memcpy(oldValue, value->data(), copied);
    *oldSize = copied;
    return copied < value->size() ? failWith(ENOMEM) : 0;
}
