#include "helper/guardian_watch.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>

extern char** environ;  // NOLINT: the platform declares it nowhere

namespace ferovane {
namespace {

// One transient controller error needs one more attempt, at once; a controller that is busy needs
// time. The pauses double, to some 25 seconds together; after that, only the log is left.
constexpr int kAttempts = 8;
constexpr long kFirstPauseMilliseconds = 200;

// All that would end or stop a process and tell of no fault in it.
constexpr int kIgnoredSignals[] = {SIGTERM, SIGINT,  SIGHUP,    SIGQUIT, SIGPIPE, SIGTSTP,
                                   SIGTTIN, SIGTTOU, SIGUSR1,   SIGUSR2, SIGALRM, SIGIO,
                                   SIGPROF, SIGXCPU, SIGVTALRM, SIGXFSZ};

void setSignals(void (*disposition)(int)) {
    for (const int signal : kIgnoredSignals) {
        ::signal(signal, disposition);
    }
}

// Whether fans were held when the helper's end of the pipe was closed.
bool heldAtTheEnd(int pipe) {
    bool held = false;
    for (;;) {
        char words[64];
        const ssize_t count = ::read(pipe, words, sizeof words);
        if (count > 0) {
            held = words[count - 1] == kGuardianHeld;
        } else if (count == 0 || errno != EINTR) {
            return held;
        }
    }
}

void sleepFor(long milliseconds) {
    timespec left{milliseconds / 1000, milliseconds % 1000 * 1'000'000};
    while (::nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

[[noreturn]] void becomeAuto(const char* helperPath) {
    setSignals(SIG_DFL);
    char word[] = "auto";
    char* const arguments[] = {const_cast<char*>(helperPath), word, nullptr};
    ::execve(helperPath, arguments, environ);
    ::_exit(127);
}

bool runAuto(const char* helperPath) {
    const pid_t child = ::fork();
    // Where there may be no process more, this one has to do: nobody tries again then, or tells the
    // log, but the fans come first.
    if (child <= 0) {
        becomeAuto(helperPath);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            return false;
        }
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

[[noreturn]] void tellLog() {
    char program[] = "/usr/bin/logger";
    char tagOption[] = "-t";
    char tag[] = "FerovaneHelper";
    char levelOption[] = "-p";
    char level[] = "daemon.err";
    char text[] = "辅助进程意外结束，恢复自动风扇失败；请重新启动电脑以恢复系统自动。";
    char* const arguments[] = {program, tagOption, tag, levelOption, level, text, nullptr};
    char path[] = "PATH=/usr/bin:/bin:/usr/sbin:/sbin";
    char* const environment[] = {path, nullptr};  // no tool gets to see the caller's
    ::execve(program, arguments, environment);
    ::_exit(1);
}

}  // namespace

void watchOverFans(const GuardianPlan& plan) {
    ::setsid();
    // Whoever authorised the helper is its real user, and may therefore kill it; this process has
    // to be out of his reach. Fails where the helper is not root's, and is not needed there.
    static_cast<void>(::setuid(0) == 0);
    // A signal meant for the helper must not take its guardian along.
    setSignals(SIG_IGN);
    for (const int descriptor : plan.descriptors) {
        ::close(descriptor);
    }
    if (!heldAtTheEnd(plan.pipe)) {
        ::_exit(0);
    }
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        if (attempt > 0) {
            sleepFor(kFirstPauseMilliseconds << (attempt - 1));
        }
        if (runAuto(plan.helperPath)) {
            ::_exit(0);
        }
    }
    tellLog();
}

}  // namespace ferovane
