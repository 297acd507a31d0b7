#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>

#include "shim/fv.h"

extern char** environ;  // NOLINT: the platform declares it nowhere

namespace {

constexpr int kStandardInput = 0;
constexpr int kStandardOutput = 1;
constexpr int kStandardError = 2;

// Everything a system tool gets to know of ours: nothing a caller could have smuggled in.
constexpr char kPath[] = "PATH=/usr/bin:/bin:/usr/sbin:/sbin";
constexpr char kLanguage[] = "LANG=en_US.UTF-8";

class FileActions {
public:
    FileActions() : error_(posix_spawn_file_actions_init(&actions_)) {}
    FileActions(const FileActions&) = delete;
    FileActions& operator=(const FileActions&) = delete;
    ~FileActions() {
        if (error_ == 0) {
            posix_spawn_file_actions_destroy(&actions_);
        }
    }

    const posix_spawn_file_actions_t* get() const { return &actions_; }
    int error() const { return error_; }  // of the first step that failed

    void copy(int descriptor, int standard) {
        if (error_ == 0) {
            error_ = posix_spawn_file_actions_adddup2(&actions_, descriptor, standard);
        }
    }
    void openNull(int standard, int flags) {
        if (error_ == 0) {
            error_ = posix_spawn_file_actions_addopen(&actions_, standard, "/dev/null", flags, 0);
        }
    }

private:
    posix_spawn_file_actions_t actions_{};
    int error_;
};

class Attributes {
public:
    Attributes() : error_(posix_spawnattr_init(&attributes_)) {}
    Attributes(const Attributes&) = delete;
    Attributes& operator=(const Attributes&) = delete;
    ~Attributes() {
        if (error_ == 0) {
            posix_spawnattr_destroy(&attributes_);
        }
    }

    const posix_spawnattr_t* get() const { return &attributes_; }

    // place: a process group or a session of its own.
    int describe(int place) {
        if (error_ != 0) {
            return error_;
        }
        sigset_t everySignal;
        sigset_t noSignal;
        sigfillset(&everySignal);
        sigemptyset(&noSignal);
        const int flags =
            POSIX_SPAWN_CLOEXEC_DEFAULT | place | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK;
        if (const int error = posix_spawnattr_setsigdefault(&attributes_, &everySignal)) {
            return error;
        }
        if (const int error = posix_spawnattr_setsigmask(&attributes_, &noSignal)) {
            return error;
        }
        if (const int error = posix_spawnattr_setpgroup(&attributes_, 0)) {
            return error;
        }
        return posix_spawnattr_setflags(&attributes_, static_cast<short>(flags));
    }

private:
    posix_spawnattr_t attributes_{};
    int error_;
};

int spawn(const char* path, const char* const argv[], const FileActions& actions, int place,
          char* const environment[], int32_t* pid) {
    Attributes attributes;
    if (const int error = attributes.describe(place)) {
        return error;
    }
    if (actions.error() != 0) {
        return actions.error();
    }
    // posix_spawn takes its texts without const and changes none of them.
    pid_t child = 0;
    const int error = posix_spawn(&child, path, actions.get(), attributes.get(),
                                  const_cast<char* const*>(argv), environment);
    if (error == 0) {
        *pid = child;
    }
    return error;
}

}  // namespace

int fv_spawn_tool(const char* path, const char* const argv[], int output_fd, int32_t* pid) {
    if (path == nullptr || path[0] != '/' || argv == nullptr || argv[0] == nullptr ||
        output_fd < 0 || pid == nullptr) {
        return EINVAL;
    }
    *pid = 0;
    FileActions actions;
    // The outputs come first: the caller's descriptor may itself be our standard input.
    actions.copy(output_fd, kStandardOutput);
    actions.copy(output_fd, kStandardError);
    actions.openNull(kStandardInput, O_RDONLY);
    char* const environment[] = {const_cast<char*>(kPath), const_cast<char*>(kLanguage), nullptr};
    return spawn(path, argv, actions, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_START_SUSPENDED,
                 environment, pid);
}

int fv_spawn_companion(const char* path, const char* name, int input_fd, int32_t* pid) {
    if (path == nullptr || path[0] != '/' || name == nullptr || input_fd <= kStandardError ||
        pid == nullptr) {
        return EINVAL;
    }
    *pid = 0;
    FileActions actions;
    actions.copy(input_fd, kStandardInput);
    actions.openNull(kStandardOutput, O_WRONLY);
    actions.openNull(kStandardError, O_WRONLY);
    const char* const argv[] = {name, nullptr};
    return spawn(path, argv, actions, POSIX_SPAWN_SETSID, environ, pid);
}
