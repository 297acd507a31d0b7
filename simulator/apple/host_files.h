// What the host publishes about itself under /proc. Read without streams: their locales would be
// most of the memory and time of a session that is measured here.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace simulator {

// The whole content; nothing when the file cannot be opened or fails while it is read, as the files
// of a process do that ends meanwhile.
std::optional<std::string> readHostFile(const char* path);

// As much of the content as the buffer, the caller's, holds in one read; empty when there is none.
// Allocates nothing, for what is read again and again.
std::string_view readHostFile(const char* path, std::span<char> buffer);

// Cuts the first line, or the first word, off the text; both are empty at its end.
std::string_view takeLine(std::string_view& text);
std::string_view takeWord(std::string_view& text);

// The next word as a decimal number; nothing when it is not one or does not fit.
template <class Integer>
std::optional<Integer> takeNumber(std::string_view& text);

// The fields of /proc/meminfo.
struct MemoryInfo {
    std::map<std::string, std::uint64_t> fields;

    std::uint64_t kilobytes(const std::string& name) const;  // 0 for a field that is not there
};

std::optional<MemoryInfo> readMemoryInfo();

std::uint64_t pageBytes();

}  // namespace simulator
