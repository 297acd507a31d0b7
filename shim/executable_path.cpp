#include <libproc.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>

#include "shim/fv.h"

namespace {

// The longest path the kernel tells; it refuses a larger buffer.
constexpr std::size_t kLongestPath = 4096;

}  // namespace

int fv_executable_path(char* path, size_t capacity) {
    if (path == nullptr || capacity == 0) {
        return -1;
    }
    path[0] = '\0';
    char text[kLongestPath] = {};
    const int length = proc_pidpath(getpid(), text, sizeof text);
    if (length <= 0 || static_cast<std::size_t>(length) >= capacity) {
        return -1;
    }
    std::memcpy(path, text, static_cast<std::size_t>(length));
    path[length] = '\0';
    return 0;
}
