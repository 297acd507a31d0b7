#include <pthread.h>
#include <signal.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>

#include "shim/fv.h"
#include "shim/time_base.h"

namespace {

// The longest a stop signal that arrives between the check and the sleep can go unnoticed.
constexpr double kPauseSliceSeconds = 0.2;

constexpr int kStopSignals[] = {SIGTERM, SIGINT, SIGHUP};

// Set in signal context, read by any thread: only a lock-free atomic allows both.
std::atomic<bool> stopRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free);

extern "C" void noteStopSignal(int /*signal*/) {
    stopRequested.store(true);
}

timespec timespecOf(double seconds) {
    const auto nanoseconds = static_cast<long>(seconds * ferovane::shim::kNanosecondsPerSecond);
    return {.tv_sec = 0, .tv_nsec = nanoseconds};
}

}  // namespace

void fv_install_stop_handlers(void) {
    // Without SA_RESTART a signal also ends a blocking read or sleep at once.
    struct sigaction action {};
    action.sa_handler = noteStopSignal;
    sigemptyset(&action.sa_mask);
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    for (const int signal : kStopSignals) {
        sigaction(signal, &action, nullptr);
        sigaddset(&stopSignals, signal);
    }
    // Whoever started us may have left them blocked, and then they would never arrive.
    pthread_sigmask(SIG_UNBLOCK, &stopSignals, nullptr);
}

bool fv_should_stop(void) {
    return stopRequested.load();
}

bool fv_pause(double seconds) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    while (!fv_should_stop()) {
        const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        const double remaining = seconds - elapsed;
        if (!(remaining > 0.0)) {  // also ends a pause of NaN seconds
            return false;
        }
        const timespec slice = timespecOf(std::min(remaining, kPauseSliceSeconds));
        nanosleep(&slice, nullptr);
    }
    return true;
}
