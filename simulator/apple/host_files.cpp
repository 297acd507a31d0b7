#include "simulator/apple/host_files.h"

#include <unistd.h>

#include <fstream>
#include <limits>

namespace simulator {

std::uint64_t MemoryInfo::kilobytes(const std::string& name) const {
    const auto field = fields.find(name);
    return field == fields.end() ? 0 : field->second;
}

std::optional<MemoryInfo> readMemoryInfo() {
    std::ifstream file("/proc/meminfo");
    MemoryInfo memory;
    std::string name;
    std::uint64_t value = 0;
    while (file >> name >> value) {
        memory.fields[name.substr(0, name.find(':'))] = value;
        file.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    }
    return memory.fields.contains("MemTotal") ? std::optional(memory) : std::nullopt;
}

std::uint64_t pageBytes() {
    return static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace simulator
