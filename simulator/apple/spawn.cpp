#define SIMULATOR_HOST_NAMES
#include <fcntl.h>
#include <libproc.h>
#include <limits.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
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

constexpr int kNotLoaded = 127;  // as the host's own: the exit status of what could not be loaded

// Done in the child, between fork and exec: nothing here takes memory or a lock.

int applyOne(const FileAction& action) {
    switch (action.kind) {
        case FileAction::Kind::open: {
            const int opened = open(action.path.c_str(), action.flags, action.mode);
            if (opened < 0) {
                return errno;
            }
            if (opened != action.descriptor) {
                const int copied = dup2(opened, action.descriptor);
                close(opened);
                return copied < 0 ? errno : 0;
            }
            return 0;
        }
        case FileAction::Kind::close:
            close(action.descriptor);
            return 0;
        case FileAction::Kind::duplicate:
            if (action.source != action.descriptor) {
                return dup2(action.source, action.descriptor) < 0 ? errno : 0;
            }
            [[fallthrough]];
        case FileAction::Kind::inherit:
            return fcntl(action.descriptor, F_SETFD, 0) < 0 ? errno : 0;
    }
    return EINVAL;
}

// named: the descriptors that the actions name, all others being closed; null when they stay.
int applyAll(const FileActions& actions, const std::set<int>* named) {
    for (const FileAction& action : actions) {
        if (const int error = applyOne(action)) {
            return error;
        }
    }
    if (named != nullptr) {
        const int firstAbove = named->empty() ? 0 : *named->rbegin() + 1;
        for (int descriptor = 0; descriptor < firstAbove; ++descriptor) {
            if (!named->contains(descriptor)) {
                close(descriptor);
            }
        }
        closefrom(firstAbove);
    }
    return 0;
}

int applyAttributes(const posix_spawnattr_t& attributes, int flags) {
    if ((flags & POSIX_SPAWN_SETSID) != 0 && setsid() < 0) {
        return errno;
    }
    if ((flags & POSIX_SPAWN_SETPGROUP) != 0) {
        pid_t group = 0;
        posix_spawnattr_getpgroup(&attributes, &group);
        if (setpgid(0, group) != 0) {
            return errno;
        }
    }
    if ((flags & POSIX_SPAWN_SETSIGDEF) != 0) {
        sigset_t defaults;
        posix_spawnattr_getsigdefault(&attributes, &defaults);
        for (int number = 1; number < NSIG; ++number) {
            if (sigismember(&defaults, number) == 1) {
                signal(number, SIG_DFL);
            }
        }
    }
    return 0;
}

// Seen by a child too; false at first.
class SharedFlag {
public:
    SharedFlag()
        : page_(mmap(nullptr, sizeof(Flag), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1,
                     0)) {}
    SharedFlag(const SharedFlag&) = delete;
    SharedFlag& operator=(const SharedFlag&) = delete;
    ~SharedFlag() {
        if (*this) {
            munmap(page_, sizeof(Flag));
        }
    }

    explicit operator bool() const { return page_ != MAP_FAILED; }
    std::atomic<bool>& operator*() const { return *static_cast<Flag*>(page_); }

private:
    using Flag = std::atomic<bool>;
    void* page_;
};

int record(simulator_spawn_file_actions_t* actions, FileAction action) {
    static_cast<FileActions*>(*actions)->push_back(std::move(action));
    return 0;
}

}  // namespace

// One that is to start suspended stops just before its program is loaded, which is where macOS
// keeps it. No other does: it must go on also when its parent dies now. One that gets no further
// ends with the error.
int simulator_posix_spawn(pid_t* pid, const char* path,
                          const simulator_spawn_file_actions_t* actions,
                          const posix_spawnattr_t* attributes, char* const argv[],
                          char* const environment[]) {
    const FileActions none;
    const FileActions& steps =
        actions != nullptr ? *static_cast<const FileActions*>(*actions) : none;
    std::set<int> named;
    for (const FileAction& action : steps) {
        named.insert(action.descriptor);
    }
    short given = 0;
    if (attributes != nullptr) {
        posix_spawnattr_getflags(attributes, &given);
    }
    const int flags = given;
    // What is simulated lives below the machine's root; the process itself is the host's.
    std::array<char, PATH_MAX> own{};
    const bool isOwn =
        proc_pidpath(getpid(), own.data(), own.size()) > 0 && own.data() == std::string_view(path);
    const std::string program = isOwn ? path : simulator::pathOnHost(path);

    sigset_t all, before, mask;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);  // none of our handlers runs in the child
    mask = before;
    if ((flags & POSIX_SPAWN_SETSIGMASK) != 0) {
        posix_spawnattr_getsigmask(attributes, &mask);
    }
    const bool suspended = (flags & POSIX_SPAWN_START_SUSPENDED) != 0;
    const pid_t parent = getpid();
    const SharedFlag loads;
    const pid_t child = loads ? fork() : -1;
    if (child == 0) {
        int error = flags == 0 ? 0 : applyAttributes(*attributes, flags);
        if (error == 0) {
            error = applyAll(steps, (flags & POSIX_SPAWN_CLOEXEC_DEFAULT) != 0 ? &named : nullptr);
        }
        if (error == 0 && faccessat(AT_FDCWD, program.c_str(), X_OK, AT_EACCESS) != 0) {
            error = errno;
        }
        if (error != 0) {
            _exit(error);
        }
        pthread_sigmask(SIG_SETMASK, &mask, nullptr);
        *loads = true;
        if (suspended) {
            // A system hangs up what is stopped when its parent goes. Here the parent may go before
            // the stop, and nobody would.
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent) {
                _exit(kNotLoaded);
            }
            raise(SIGSTOP);
            prctl(PR_SET_PDEATHSIG, 0);
        }
        execve(program.c_str(), argv, environment);
        _exit(kNotLoaded);
    }
    const int forkError = errno;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (child < 0) {
        return forkError;
    }
    siginfo_t info{};
    int waited = 0;
    const int options = WEXITED | WNOWAIT | (suspended ? WSTOPPED : WNOHANG);
    do {
        sched_yield();
        waited = waitid(P_PID, static_cast<id_t>(child), &info, options);
    } while (waited != 0 ? errno == EINTR : info.si_pid == 0 && !*loads);
    if (!*loads) {
        waitpid(child, nullptr, 0);
        return info.si_code == CLD_EXITED ? info.si_status : ECHILD;
    }
    *pid = child;
    return 0;
}

// The host refuses flags that it does not know, so those added are set past it; they read back and
// last as long as the attributes do.
int simulator_posix_spawnattr_setflags(posix_spawnattr_t* attributes, short flags) {
    const int error = posix_spawnattr_setflags(
        attributes,
        static_cast<short>(flags & ~(POSIX_SPAWN_CLOEXEC_DEFAULT | POSIX_SPAWN_START_SUSPENDED)));
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
