// What a process asks about itself: its temporary directory, its thread's class and name.
#define SIMULATOR_HOST_NAMES
#include <pthread.h>
#include <pthread/qos.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

size_t simulator_confstr(int name, char* buffer, size_t size) {
    if (name != _CS_DARWIN_USER_TEMP_DIR) {
        return confstr(name, buffer, size);
    }
    const char* named = std::getenv("TMPDIR");  // NOLINT(concurrency-mt-unsafe): nobody sets it
    std::string directory = named != nullptr && *named != '\0' ? named : "/tmp";
    directory += directory.back() == '/' ? "" : "/";
    if (buffer != nullptr && size > 0) {
        const size_t copied = std::min(size - 1, directory.size());
        std::memcpy(buffer, directory.data(), copied);
        buffer[copied] = '\0';
    }
    return directory.size() + 1;
}

// The host's scheduler has no such classes; the request is a hint on macOS as well.
int pthread_set_qos_class_self_np(qos_class_t, int) {
    return 0;
}

int pthread_setname_np(const char* name) {
    return pthread_setname_np(pthread_self(), name);
}
