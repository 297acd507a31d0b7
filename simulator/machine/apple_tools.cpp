// On macOS, in the helper that is linked with the simulated Mac: the machine's own tools run
// instead of the system's, and none at all without a machine. Elsewhere the stand-in of posix_spawn
// does this.
#include <dlfcn.h>
#include <libproc.h>
#include <spawn.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>
#include <string_view>

#include "simulator/machine/machine.h"

namespace {

using Spawn = int (*)(pid_t*, const char*, const posix_spawn_file_actions_t*,
                      const posix_spawnattr_t*, char* const[], char* const[]);

// The system's own, behind this program's.
Spawn systemSpawn() {
    static const auto spawn = reinterpret_cast<Spawn>(::dlsym(RTLD_NEXT, "posix_spawn"));
    return spawn;
}

}  // namespace

extern "C" int posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                           const posix_spawnattr_t* attributes, char* const arguments[],
                           char* const environment[]) {
    simulator::Machine* machine = simulator::attachedMac();
    if (machine == nullptr) {
        return ENOENT;
    }
    // What is simulated lives below the machine's root; the process itself is the host's.
    std::array<char, PROC_PIDPATHINFO_MAXSIZE> own{};
    const bool isOwn = ::proc_pidpath(::getpid(), own.data(), own.size()) > 0 &&
                       own.data() == std::string_view(path);
    const std::string place = path[0] == '/' && !isOwn ? machine->root() + path : path;
    return systemSpawn()(pid, place.c_str(), actions, attributes, arguments, environment);
}
