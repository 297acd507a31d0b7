#include <unistd.h>

#include <cstddef>

#include "shim/fv.h"

int fv_temporary_directory(char* path, size_t capacity) {
    if (path == nullptr || capacity == 0) {
        return -1;
    }
    const std::size_t size = confstr(_CS_DARWIN_USER_TEMP_DIR, path, capacity);  // NUL included
    if (size < 2 || size > capacity) {
        path[0] = '\0';
        return -1;
    }
    if (path[size - 2] == '/') {
        return 0;
    }
    // The system's fall-back, an environment variable, may lack the slash.
    if (size == capacity) {
        path[0] = '\0';
        return -1;
    }
    path[size - 1] = '/';
    path[size] = '\0';
    return 0;
}
