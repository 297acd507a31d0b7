#include "core/power/tool_output.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "core/model/utf8.h"

namespace ferovane {

namespace {

std::string readBytes(int descriptor, std::size_t limit) {
    struct stat file {};
    if (fstat(descriptor, &file) != 0 || file.st_size <= 0) {
        return {};
    }
    std::string bytes(std::min(static_cast<std::size_t>(file.st_size), limit), '\0');
    std::size_t filled = 0;
    while (filled < bytes.size()) {
        const auto count = pread(descriptor, bytes.data() + filled, bytes.size() - filled,
                                 static_cast<off_t>(filled));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            break;
        }
        filled += static_cast<std::size_t>(count);
    }
    bytes.resize(filled);
    return bytes;
}

}  // namespace

// Reading a little more than the limit keeps a character that the limit cuts through from being
// taken for an invalid one.
std::string readToolOutput(int descriptor, std::size_t limit) {
    constexpr std::size_t kLongestRest = 3;  // bytes of a character after its first
    auto text = repairUtf8(readBytes(descriptor, limit + kLongestRest));
    text.resize(utf8Prefix(text, limit).size());
    return text;
}

}  // namespace ferovane
