#include "helper/guardian_watch.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <exception>

#include "helper/fan_return.h"
#include "shim/fv.h"

namespace ferovane {
namespace {

constexpr const char* kReturned = "辅助进程意外结束，风扇已恢复系统自动";
constexpr const char* kNotReturned =
    "辅助进程意外结束，恢复自动风扇失败；请重新启动电脑以恢复系统自动。";

// All that would end or stop a process and tell of no fault in it: a signal meant for the helper
// must not take its guardian along.
constexpr int kIgnoredSignals[] = {SIGTERM, SIGINT,  SIGHUP,    SIGQUIT, SIGPIPE, SIGTSTP,
                                   SIGTTIN, SIGTTOU, SIGUSR1,   SIGUSR2, SIGALRM, SIGIO,
                                   SIGPROF, SIGXCPU, SIGVTALRM, SIGXFSZ};

void standApart() {
    fv_name_thread(kGuardianName);
    for (const int signal : kIgnoredSignals) {
        ::signal(signal, SIG_IGN);
    }
    // Whoever authorised the helper is its real user, and may therefore kill it; this process has
    // to be out of his reach. Fails where the helper is not root's, and is not needed there.
    static_cast<void>(::setuid(0) == 0);
    static_cast<void>(::chdir("/") == 0);  // no volume is kept in use
}

// The last whole charge, once the helper's end is closed.
GuardianCharge chargeAtTheEnd(int helper) {
    GuardianCharge charge;
    GuardianCharge arriving;
    std::size_t arrived = 0;
    for (;;) {
        const ssize_t count =
            ::read(helper, reinterpret_cast<char*>(&arriving) + arrived, sizeof arriving - arrived);
        if (count > 0) {
            arrived += static_cast<std::size_t>(count);
            if (arrived == sizeof arriving) {
                charge = arriving;
                arrived = 0;
            }
        } else if (count == 0 || errno != EINTR) {
            return charge;
        }
    }
}

// What "auto" does, on a connection of its own each time.
bool handBack(HelperEnvironment (*makeEnvironment)()) noexcept {
    try {
        returnEveryFan(*makeEnvironment().makeSMC());
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace

int keepGuard(int helper, HelperEnvironment (*makeEnvironment)()) {
    standApart();
    static_cast<void>(::write(helper, &kGuardianStands, 1) == 1);
    const GuardianCharge charge = chargeAtTheEnd(helper);
    if (charge.toolGroup > 1) {
        ::kill(-charge.toolGroup, SIGKILL);
    }
    if (charge.fansHeld == 0) {
        return 0;
    }
    const bool returned = returnPatiently(
        kFirstReturnPauseSeconds, [&] { return handBack(makeEnvironment); }, fv_pause);
    fv_log(!returned, returned ? kReturned : kNotReturned);
    return returned ? 0 : 1;
}

}  // namespace ferovane
