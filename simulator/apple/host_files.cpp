#include "simulator/apple/host_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>

namespace simulator {

std::optional<std::string> readHostFile(const char* path) {
    const int descriptor = ::open(path, O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) {
        return std::nullopt;
    }
    std::string content;
    std::array<char, 4096> part{};
    ssize_t count = 0;
    do {
        count = ::read(descriptor, part.data(), part.size());
        content.append(part.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    } while (count > 0 || (count < 0 && errno == EINTR));
    ::close(descriptor);
    return count == 0 ? std::optional(content) : std::nullopt;
}

std::string_view readHostFile(const char* path, std::span<char> buffer) {
    const int descriptor = ::open(path, O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) {
        return {};
    }
    const ssize_t count = ::read(descriptor, buffer.data(), buffer.size());
    ::close(descriptor);
    return {buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0))};
}

std::string_view takeLine(std::string_view& text) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return line;
}

std::string_view takeWord(std::string_view& text) {
    constexpr std::string_view kBlanks = " \t\n";
    text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
    const std::string_view word = text.substr(0, text.find_first_of(kBlanks));
    text.remove_prefix(word.size());
    return word;
}

template <class Integer>
std::optional<Integer> takeNumber(std::string_view& text) {
    const std::string_view word = takeWord(text);
    Integer number = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
    const bool whole = error == std::errc() && end == word.data() + word.size();
    return whole ? std::optional(number) : std::nullopt;
}

template std::optional<std::int32_t> takeNumber(std::string_view&);
template std::optional<std::uint32_t> takeNumber(std::string_view&);
template std::optional<std::uint64_t> takeNumber(std::string_view&);

std::uint64_t MemoryInfo::kilobytes(const std::string& name) const {
    const auto field = fields.find(name);
    return field == fields.end() ? 0 : field->second;
}

std::optional<MemoryInfo> readMemoryInfo() {
    const std::optional<std::string> file = readHostFile("/proc/meminfo");
    std::string_view rest = file ? *file : std::string_view();
    MemoryInfo memory;
    while (!rest.empty()) {
        std::string_view line = takeLine(rest);
        const std::string_view name = takeWord(line);
        if (const auto value = takeNumber<std::uint64_t>(line)) {
            memory.fields[std::string(name.substr(0, name.find(':')))] = *value;
        }
    }
    return memory.fields.contains("MemTotal") ? std::optional(memory) : std::nullopt;
}

std::uint64_t pageBytes() {
    return static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace simulator
