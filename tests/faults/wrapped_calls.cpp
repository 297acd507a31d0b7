#include "tests/faults/wrapped_calls.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <system_error>
#include <vector>

#include "shim/fv.h"
#include "tests/faults/fault_world.h"
#include "tests/faults/product_scope.h"

namespace ferovane::testing {
namespace {

// The world that this thread is in, or null.
FaultWorld* here() {
    return Turns::ofThisThread() != nullptr ? FaultWorld::current() : nullptr;
}

// A question to the machine that may get no answer.
template <class Answer, class Ask>
Answer probe(Answer none, Ask&& ask) {
    FaultWorld* world = here();
    if (world == nullptr) {
        return ask();
    }
    const OutsideProduct outside;
    return world->enter({CallKind::probe}).nothing ? none : ask();
}

}  // namespace

void beforeThreadStart() {
    if (FaultWorld* world = here()) {
        if (const int error = world->enter({CallKind::threadStart}).error; error != 0) {
            throw std::system_error(error, std::generic_category());
        }
    }
}

extern "C" {

// ---- The controller ----------------------------------------------------------------------------

int __real_IOConnectCallStructMethod(std::uint32_t, std::uint32_t, const void*, std::size_t, void*,
                                     std::size_t*);
int __wrap_IOConnectCallStructMethod(std::uint32_t connection, std::uint32_t selector,
                                     const void* input, std::size_t inputSize, void* output,
                                     std::size_t* outputSize) {
    FaultWorld* world = here();
    if (world == nullptr) {
        return __real_IOConnectCallStructMethod(connection, selector, input, inputSize, output,
                                                outputSize);
    }
    const OutsideProduct outside;
    simulator::ControllerBlock in{};
    simulator::ControllerBlock out{};
    std::memcpy(&in, input, sizeof in);
    const CallKind kind = in.command == 9   ? CallKind::keyInfo
                          : in.command == 5 ? CallKind::keyRead
                          : in.command == 6 ? CallKind::keyWrite
                                            : CallKind::keyName;
    world->enter({kind, in.key});
    world->spy.before(in);
    const int code = __real_IOConnectCallStructMethod(connection, selector, input, inputSize,
                                                      output, outputSize);
    std::memcpy(&out, output, sizeof out);
    world->spy.after(connection, in, out, code == 0 && *outputSize == sizeof out);
    return code;
}

std::uint32_t __real_fv_smc_open(void);
std::uint32_t __wrap_fv_smc_open(void) {
    FaultWorld* world = here();
    if (world == nullptr) {
        return __real_fv_smc_open();
    }
    const OutsideProduct outside;
    const std::uint32_t connection =
        world->enter({CallKind::open}).error != 0 ? 0 : __real_fv_smc_open();
    world->spy.opened(connection);
    return connection;
}

void __real_fv_smc_close(std::uint32_t);
void __wrap_fv_smc_close(std::uint32_t connection) {
    const OutsideProduct outside;
    __real_fv_smc_close(connection);
}

// ---- Other questions to the machine ------------------------------------------------------------

// Not from the host, which would make no two runs alike.
int __real_fv_cpu_ticks(std::uint64_t*, std::uint64_t*, std::uint64_t*, std::uint64_t*);
int __wrap_fv_cpu_ticks(std::uint64_t* user, std::uint64_t* system, std::uint64_t* idle,
                        std::uint64_t* nice) {
    return probe(-1, [&] {
        *user = *system = *idle = *nice = 100;
        return 0;
    });
}

FVPowerStatus __real_fv_power_status(void);
FVPowerStatus __wrap_fv_power_status(void) {
    return probe(FVPowerStatus{-1, -1, -1, -1}, [] { return __real_fv_power_status(); });
}
int __real_fv_ac_power(void);
int __wrap_fv_ac_power(void) {
    return probe(-1, [] { return __real_fv_ac_power(); });
}
int __real_fv_memory_pressure(void);
int __wrap_fv_memory_pressure(void) {
    return probe(-1, [] { return __real_fv_memory_pressure(); });
}
int __real_fv_turbo_driver_state(void);
int __wrap_fv_turbo_driver_state(void) {
    return probe(-1, [] { return __real_fv_turbo_driver_state(); });
}
int __real_fv_thermal_state(void);
int __wrap_fv_thermal_state(void) {
    return probe(-1, [] { return __real_fv_thermal_state(); });
}
int __real_fv_processor_count(void);
int __wrap_fv_processor_count(void) {
    return probe(-1, [] { return __real_fv_processor_count(); });
}
int __real_fv_low_power_mode(void);
int __wrap_fv_low_power_mode(void) {
    return probe(-1, [] { return __real_fv_low_power_mode(); });
}
int __real_fv_power_assertions(fv_assertion_visitor, void*);
int __wrap_fv_power_assertions(fv_assertion_visitor visit, void* context) {
    return probe(-1, [&] { return __real_fv_power_assertions(visit, context); });
}
int __real_fv_bundle_has_identifier(const char*, const char*);
int __wrap_fv_bundle_has_identifier(const char* path, const char* identifier) {
    return probe(0, [&] { return __real_fv_bundle_has_identifier(path, identifier); });
}

// Identifiers are made of it.
unsigned __real__ZNSt13random_device9_M_getvalEv(std::random_device*);
unsigned __wrap__ZNSt13random_device9_M_getvalEv(std::random_device* device) {
    FaultWorld* world = here();
    return world != nullptr ? world->entropy() : __real__ZNSt13random_device9_M_getvalEv(device);
}

// ---- Descriptors -------------------------------------------------------------------------------

int __real_poll(pollfd*, nfds_t, int);
int __wrap_poll(pollfd* waiting, nfds_t count, int milliseconds) {
    FaultWorld* world = here();
    if (world == nullptr || count != 1 || !world->own(waiting->fd)) {
        return __real_poll(waiting, count, milliseconds);
    }
    const OutsideProduct outside;
    return world->poll(waiting->fd, waiting->events, waiting->revents, milliseconds);
}

ssize_t __real_read(int, void*, std::size_t);
ssize_t __wrap_read(int descriptor, void* bytes, std::size_t size) {
    FaultWorld* world = here();
    if (world == nullptr || !world->own(descriptor)) {
        return __real_read(descriptor, bytes, size);
    }
    const OutsideProduct outside;
    return world->read(bytes, size);
}

ssize_t __real_write(int, const void*, std::size_t);
ssize_t __wrap_write(int descriptor, const void* bytes, std::size_t size) {
    FaultWorld* world = here();
    if (world == nullptr || !world->own(descriptor)) {
        return __real_write(descriptor, bytes, size);
    }
    const OutsideProduct outside;
    return world->write(descriptor, bytes, size);
}

// ---- Signals -----------------------------------------------------------------------------------

int __real_sigaction(int, const struct sigaction*, struct sigaction*);
int __wrap_sigaction(int number, const struct sigaction* action, struct sigaction* before) {
    FaultWorld* world = here();
    if (world == nullptr || action == nullptr) {
        return __real_sigaction(number, action, before);
    }
    const OutsideProduct outside;
    world->handled[number] = action->sa_handler != SIG_DFL;
    return 0;
}

// ---- Tools -------------------------------------------------------------------------------------

int __real_mkostemp(char*, int);
int __wrap_mkostemp(char* path, int flags) {
    FaultWorld* world = here();
    if (world != nullptr) {
        const OutsideProduct outside;
        if (const int error = world->enter({CallKind::outputFile}).error; error != 0) {
            errno = error;
            return -1;
        }
    }
    return __real_mkostemp(path, flags);
}

int __real_fv_spawn_tool(const char*, const char* const[], int, std::int32_t*);
int __wrap_fv_spawn_tool(const char* path, const char* const words[], int output,
                         std::int32_t* pid) {
    FaultWorld* world = here();
    if (world == nullptr) {
        return __real_fv_spawn_tool(path, words, output, pid);
    }
    const OutsideProduct outside;
    if (const int error = world->enter({CallKind::spawn}).error; error != 0) {
        return error;
    }
    std::vector<std::string> arguments;
    for (const char* const* word = words; *word != nullptr; ++word) {
        arguments.emplace_back(*word);
    }
    *pid = world->tools.start(path, arguments, output);
    return 0;
}

int __real_waitid(idtype_t, id_t, siginfo_t*, int);
int __wrap_waitid(idtype_t type, id_t pid, siginfo_t* info, int options) {
    FaultWorld* world = here();
    if (world == nullptr || !Tools::isTool(pid)) {
        return __real_waitid(type, pid, info, options);
    }
    const OutsideProduct outside;
    if (world->tools.isNew(pid)) {  // a tool is looked at many times; the first may go wrong
        if (const int error = world->enter({CallKind::toolWait}).error; error != 0) {
            errno = error;
            return -1;
        }
    }
    info->si_pid = world->tools.hasEnded(pid) ? static_cast<pid_t>(pid) : 0;
    return 0;
}

int __real_nanosleep(const timespec*, timespec*);
int __wrap_nanosleep(const timespec* time, timespec* rest) {
    FaultWorld* world = here();
    if (world == nullptr) {
        return __real_nanosleep(time, rest);
    }
    const OutsideProduct outside;
    world->turns.sleep(static_cast<double>(time->tv_sec) +
                       static_cast<double>(time->tv_nsec) * 1e-9);
    return 0;
}

double __real_fv_uptime_seconds(void);
double __wrap_fv_uptime_seconds(void) {
    FaultWorld* world = here();
    return world == nullptr ? __real_fv_uptime_seconds() : world->turns.now();
}

pid_t __real_waitpid(pid_t, int*, int);
pid_t __wrap_waitpid(pid_t pid, int* status, int options) {
    FaultWorld* world = here();
    if (world == nullptr || !Tools::isTool(pid)) {
        return __real_waitpid(pid, status, options);
    }
    const OutsideProduct outside;
    if (const int error = world->enter({CallKind::toolWait}).error; error != 0) {
        errno = error;
        return -1;
    }
    *status = world->tools.reap(pid);
    return pid;
}

int __real_kill(pid_t, int);
int __wrap_kill(pid_t pid, int number) {
    FaultWorld* world = here();
    if (world == nullptr || !Tools::isTool(-static_cast<std::int64_t>(pid))) {
        return __real_kill(pid, number);
    }
    const OutsideProduct outside;
    world->tools.signal(-static_cast<std::int64_t>(pid), number);
    return 0;
}

}  // extern "C"

long writeReally(int descriptor, const void* bytes, std::size_t size) {
    return __real_write(descriptor, bytes, size);
}

}  // namespace ferovane::testing
