#define SIMULATOR_HOST_NAMES
#include <fcntl.h>
#include <libproc.h>
#include <limits.h>
#include <spawn.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "simulator/apple/machine_root.h"

namespace {

struct FileAction {
    enum class Kind { open, close, duplicate, inherit };
    Kind kind = Kind::close;
    int descriptor = -1;  // the one that the action names in the child
    int source = -1;
    std::string path{};
    int flags = 0;
    mode_t mode = 0;
};
using FileActions = std::vector<FileAction>;

// The host's own list of file actions. The first failed step is kept and ends the building.
class HostFileActions {
public:
    HostFileActions() : error_(posix_spawn_file_actions_init(&actions_)) {}
    ~HostFileActions() { posix_spawn_file_actions_destroy(&actions_); }
    HostFileActions(const HostFileActions&) = delete;
    HostFileActions& operator=(const HostFileActions&) = delete;

    int error() const { return error_; }
    const posix_spawn_file_actions_t* get() const { return &actions_; }

    void add(const FileAction& action) {
        if (error_ == 0) {
            error_ = addToHost(action);
        }
    }

    // Closes whatever no action named, after all actions, which may copy from any descriptor.
    void closeAllBut(const std::set<int>& named) {
        const int firstAbove = named.empty() ? 0 : *named.rbegin() + 1;
        for (int descriptor = 0; descriptor < firstAbove; ++descriptor) {
            if (!named.contains(descriptor)) {
                add({.kind = FileAction::Kind::close, .descriptor = descriptor});
            }
        }
        if (error_ == 0) {
            error_ = posix_spawn_file_actions_addclosefrom_np(&actions_, firstAbove);
        }
    }

private:
    int addToHost(const FileAction& action) {
        switch (action.kind) {
            case FileAction::Kind::open:
                return posix_spawn_file_actions_addopen(
                    &actions_, action.descriptor, action.path.c_str(), action.flags, action.mode);
            case FileAction::Kind::close:
                return posix_spawn_file_actions_addclose(&actions_, action.descriptor);
            case FileAction::Kind::duplicate:
                return posix_spawn_file_actions_adddup2(&actions_, action.source,
                                                        action.descriptor);
            case FileAction::Kind::inherit:
                // Copying a descriptor onto itself clears its close-on-exec flag on the host.
                return posix_spawn_file_actions_adddup2(&actions_, action.descriptor,
                                                        action.descriptor);
        }
        return EINVAL;
    }

    posix_spawn_file_actions_t actions_;
    int error_;
};

int record(simulator_spawn_file_actions_t* actions, FileAction action) {
    static_cast<FileActions*>(*actions)->push_back(std::move(action));
    return 0;
}

// The attributes as the host takes them, and whether the descriptor rule of macOS is on.
int splitAttributes(const posix_spawnattr_t* given, posix_spawnattr_t& host, bool& closeDefault) {
    short flags = 0;
    if (given == nullptr) {
        return posix_spawnattr_init(&host);
    }
    posix_spawnattr_getflags(given, &flags);
    closeDefault = (flags & POSIX_SPAWN_CLOEXEC_DEFAULT) != 0;
    // The host's attributes hold plain values, so a copy is a set of its own.
    host = *given;
    return posix_spawnattr_setflags(&host,
                                    static_cast<short>(flags & ~POSIX_SPAWN_CLOEXEC_DEFAULT));
}

}  // namespace

int simulator_posix_spawn(pid_t* pid, const char* path,
                          const simulator_spawn_file_actions_t* actions,
                          const posix_spawnattr_t* attributes, char* const argv[],
                          char* const environment[]) {
    posix_spawnattr_t hostAttributes;
    bool closeDefault = false;
    if (const int error = splitAttributes(attributes, hostAttributes, closeDefault)) {
        return error;
    }
    HostFileActions hostActions;
    std::set<int> named;
    if (actions != nullptr) {
        for (const FileAction& action : *static_cast<const FileActions*>(*actions)) {
            hostActions.add(action);
            named.insert(action.descriptor);
        }
    }
    if (closeDefault) {
        hostActions.closeAllBut(named);
    }
    if (hostActions.error() != 0) {
        return hostActions.error();
    }
    // What is simulated lives below the machine's root; the process itself is the host's.
    std::array<char, PATH_MAX> own{};
    const bool isOwn =
        proc_pidpath(getpid(), own.data(), own.size()) > 0 && own.data() == std::string_view(path);
    const std::string program = isOwn ? path : simulator::pathOnHost(path);
    return posix_spawn(pid, program.c_str(), hostActions.get(), &hostAttributes, argv, environment);
}

// The host refuses flags that it does not know, so the added one is set past it; it reads back and
// lasts as long as the attributes do.
int simulator_posix_spawnattr_setflags(posix_spawnattr_t* attributes, short flags) {
    const int error = posix_spawnattr_setflags(
        attributes, static_cast<short>(flags & ~POSIX_SPAWN_CLOEXEC_DEFAULT));
    if (error == 0) {
        attributes->__flags = flags;
    }
    return error;
}

int simulator_posix_spawn_file_actions_init(simulator_spawn_file_actions_t* actions) {
    *actions = new FileActions;
    return 0;
}

int simulator_posix_spawn_file_actions_destroy(simulator_spawn_file_actions_t* actions) {
    delete static_cast<FileActions*>(*actions);
    *actions = nullptr;
    return 0;
}

int simulator_posix_spawn_file_actions_addopen(simulator_spawn_file_actions_t* actions,
                                               int descriptor, const char* path, int flags,
                                               mode_t mode) {
    return record(actions, {.kind = FileAction::Kind::open,
                            .descriptor = descriptor,
                            .path = path,
                            .flags = flags,
                            .mode = mode});
}

int simulator_posix_spawn_file_actions_addclose(simulator_spawn_file_actions_t* actions,
                                                int descriptor) {
    return record(actions, {.kind = FileAction::Kind::close, .descriptor = descriptor});
}

int simulator_posix_spawn_file_actions_adddup2(simulator_spawn_file_actions_t* actions,
                                               int descriptor, int newDescriptor) {
    return record(
        actions,
        {.kind = FileAction::Kind::duplicate, .descriptor = newDescriptor, .source = descriptor});
}

int simulator_posix_spawn_file_actions_addinherit_np(simulator_spawn_file_actions_t* actions,
                                                     int descriptor) {
    return record(actions, {.kind = FileAction::Kind::inherit, .descriptor = descriptor});
}
