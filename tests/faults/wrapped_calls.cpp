#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <thread>
#include <utility>

#include "shim/fv.h"
#include "tests/faults/failing_memory.h"
#include "tests/faults/fault_world.h"

namespace ferovane::testing {
namespace {

constexpr double kLockedSeconds = 0.01;  // until a lock is tried again
constexpr double kNanosecondsPerSecond = 1e9;

// The calls by which the code under test reaches the outside. On a thread that takes no part in a
// FaultWorld they do what they always do.

// The world that this thread is in, or null.
FaultWorld* here() {
    return Turns::ofThisThread() != nullptr ? FaultWorld::current() : nullptr;
}

// What the call always does, or in a world that wants it what is done there.
template <class Real, class Faked>
auto redirected(bool wanted, Real real, Faked faked) {
    FaultWorld* world = here();
    if (world == nullptr || !wanted) {
        return real();
    }
    const OutsideProduct outside;
    return faked(*world);
}

}  // namespace

extern "C" {

// ---- The controller ----------------------------------------------------------------------------

int __real_IOConnectCallStructMethod(std::uint32_t, std::uint32_t, const void*, std::size_t, void*,
                                     std::size_t*);
int __wrap_IOConnectCallStructMethod(std::uint32_t connection, std::uint32_t selector,
                                     const void* input, std::size_t inputSize, void* output,
                                     std::size_t* outputSize) {
    const auto real = [&] {
        return __real_IOConnectCallStructMethod(connection, selector, input, inputSize, output,
                                                outputSize);
    };
    return redirected(true, real, [&](FaultWorld& world) {
        simulator::ControllerBlock in{};
        std::memcpy(&in, input, sizeof in);
        return world.controllerCall(in, real);
    });
}

decltype(fv_smc_open) __real_fv_smc_open;
std::uint32_t __wrap_fv_smc_open(void) {
    return redirected(true, __real_fv_smc_open, [](FaultWorld& world) {
        return world.enter({CallKind::open}).error != 0 ? 0 : __real_fv_smc_open();
    });
}

decltype(fv_smc_close) __real_fv_smc_close;
void __wrap_fv_smc_close(std::uint32_t connection) {
    const OutsideProduct outside;
    __real_fv_smc_close(connection);
}

// ---- Other questions to the machine, which may get no answer -----------------------------------

#define FEROVANE_PROBE(name, ...)                                                          \
    decltype(name) __real_##name;                                                          \
    decltype(__real_##name()) __wrap_##name(void) {                                        \
        return redirected(true, __real_##name, [](FaultWorld& world) {                     \
            return world.enter({CallKind::probe}).nothing ? __VA_ARGS__ : __real_##name(); \
        });                                                                                \
    }
FEROVANE_PROBE(fv_power_status, FVPowerStatus{-1, -1, -1, -1})
FEROVANE_PROBE(fv_ac_power, -1)
FEROVANE_PROBE(fv_memory_pressure, -1)
FEROVANE_PROBE(fv_turbo_driver_state, -1)
FEROVANE_PROBE(fv_thermal_state, -1)
FEROVANE_PROBE(fv_processor_count, -1)

// Not from the host, which would make no two runs alike.
int __wrap_fv_cpu_ticks(std::uint64_t* user, std::uint64_t* system, std::uint64_t* idle,
                        std::uint64_t* nice) {
    *user = *system = *idle = *nice = 100;
    return 0;
}

// ---- Descriptors and signals -------------------------------------------------------------------

decltype(poll) __real_poll;
int __wrap_poll(pollfd* waiting, nfds_t count, int milliseconds) {
    return redirected(
        count == 1 && FaultWorld::own(waiting->fd),
        [&] { return __real_poll(waiting, count, milliseconds); },
        [&](FaultWorld& world) {
            return world.poll(waiting->events, waiting->revents, milliseconds);
        });
}

decltype(read) __real_read;
ssize_t __wrap_read(int descriptor, void* bytes, std::size_t size) {
    return redirected(
        FaultWorld::own(descriptor), [&] { return __real_read(descriptor, bytes, size); },
        [&](FaultWorld& world) { return world.read(bytes, size); });
}

decltype(write) __real_write;
ssize_t __wrap_write(int descriptor, const void* bytes, std::size_t size) {
    return redirected(
        FaultWorld::own(descriptor), [&] { return __real_write(descriptor, bytes, size); },
        [&](FaultWorld& world) { return world.write(descriptor, bytes, size); });
}

decltype(sigaction) __real_sigaction;
int __wrap_sigaction(int number, const struct sigaction* action, struct sigaction* before) {
    return redirected(
        action != nullptr, [&] { return __real_sigaction(number, action, before); },
        [&](FaultWorld& world) {
            world.handled[number] = action->sa_handler != SIG_DFL;
            return 0;
        });
}

// ---- Time and threads --------------------------------------------------------------------------

std::int64_t __real__ZNSt6chrono3_V212steady_clock3nowEv();
std::int64_t __wrap__ZNSt6chrono3_V212steady_clock3nowEv() {
    return redirected(true, __real__ZNSt6chrono3_V212steady_clock3nowEv, [](FaultWorld& world) {
        return static_cast<std::int64_t>(world.turns.now() * kNanosecondsPerSecond);
    });
}

decltype(pthread_cond_clockwait) __real_pthread_cond_clockwait;
int __wrap_pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                  clockid_t clock, const timespec* until) {
    return redirected(
        true, [&] { return __real_pthread_cond_clockwait(condition, mutex, clock, until); },
        [&](FaultWorld& world) {
            pthread_mutex_unlock(mutex);
            const bool notified = world.turns.waitFor(
                condition, static_cast<double>(until->tv_sec) +
                               static_cast<double>(until->tv_nsec) / kNanosecondsPerSecond);
            pthread_mutex_lock(mutex);
            return notified ? 0 : ETIMEDOUT;
        });
}

// Whoever holds it may be waiting for its turn.
decltype(pthread_mutex_lock) __real_pthread_mutex_lock;
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
    FaultWorld* world = here();
    if (world == nullptr) {
        return __real_pthread_mutex_lock(mutex);
    }
    int result = pthread_mutex_trylock(mutex);
    for (; result == EBUSY; result = pthread_mutex_trylock(mutex)) {
        world->turns.sleep(kLockedSeconds);
    }
    return result;
}

void __real__ZNSt18condition_variable10notify_allEv(std::condition_variable*);
void __wrap__ZNSt18condition_variable10notify_allEv(std::condition_variable* condition) {
    redirected(
        true, [&] { __real__ZNSt18condition_variable10notify_allEv(condition); },
        [&](FaultWorld& world) { world.turns.notify(condition); });
}

void __wrap__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(
    std::thread* thread, std::unique_ptr<std::thread::_State> state, void (*depend)()) {
    redirected(
        true, [&] { reallyStart(thread, std::move(state), depend); },
        [&](FaultWorld& world) { world.turns.start(*thread, std::move(state), depend); });
}

void __wrap__ZNSt6thread4joinEv(std::thread* thread) {
    redirected(
        true, [&] { reallyJoin(thread); }, [&](FaultWorld& world) { world.turns.join(*thread); });
}

}  // extern "C"

}  // namespace ferovane::testing
