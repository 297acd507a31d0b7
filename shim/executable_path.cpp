#include <libproc.h>
#include <unistd.h>

#include <cstring>

#include "shim/fv.h"

namespace {

constexpr std::size_t kLongestPath = 4096;  // PROC_PIDPATHINFO_MAXSIZE

}  // namespace

int fv_executable_path(char* path, size_t capacity) {
    char text[kLongestPath] = {};
    const int length = proc_pidpath(::getpid(), text, sizeof text);
    if (path == nullptr || length <= 0 || static_cast<std::size_t>(length) >= capacity) {
        return -1;
    }
    std::memcpy(path, text, static_cast<std::size_t>(length));
    path[length] = '\0';
    return 0;
}
