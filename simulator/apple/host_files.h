// What the host publishes about itself under /proc.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace simulator {

// The fields of /proc/meminfo.
struct MemoryInfo {
    std::map<std::string, std::uint64_t> fields;

    std::uint64_t kilobytes(const std::string& name) const;  // 0 for a field that is not there
};

std::optional<MemoryInfo> readMemoryInfo();

std::uint64_t pageBytes();

}  // namespace simulator
