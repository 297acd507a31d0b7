#define SIMULATOR_HOST_NAMES
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

std::string temporaryDirectory() {
    const char* named = std::getenv("TMPDIR");  // NOLINT(concurrency-mt-unsafe): nobody sets it
    std::string directory = named != nullptr && *named != '\0' ? named : "/tmp";
    if (directory.back() != '/') {
        directory.push_back('/');
    }
    return directory;
}

}  // namespace

size_t simulator_confstr(int name, char* buffer, size_t size) {
    if (name != _CS_DARWIN_USER_TEMP_DIR) {
        return confstr(name, buffer, size);
    }
    const std::string directory = temporaryDirectory();
    if (buffer != nullptr && size > 0) {
        const size_t copied = std::min(size - 1, directory.size());
        std::memcpy(buffer, directory.data(), copied);
        buffer[copied] = '\0';
    }
    return directory.size() + 1;
}
