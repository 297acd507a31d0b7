#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <random>

#include "shim/fv.h"
#include "tests/faults/failing_memory.h"
#include "tests/faults/fault_world.h"

namespace ferovane::testing {
namespace {

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
        Call call{in.command == 9   ? CallKind::keyInfo
                  : in.command == 5 ? CallKind::keyRead
                  : in.command == 6 ? CallKind::keyWrite
                                    : CallKind::keyName,
                  in.key};
        if (call.kind == CallKind::keyWrite) {
            for (const FanWrite& write : world.fanWrites(in)) {
                call.takes = call.takes || write.takes();
                call.returns = call.returns || write.returns();
            }
        }
        world.enter(call);
        world.noteWrites(in);
        const int code = real();
        world.noteAnswer();
        return code;
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
    FaultWorld* world = here();
    return world != nullptr && world->enter({CallKind::probe}).nothing ? -1 : 0;
}

// Identifiers are made of it.
unsigned __real__ZNSt13random_device9_M_getvalEv(std::random_device*);
unsigned __wrap__ZNSt13random_device9_M_getvalEv(std::random_device* device) {
    FaultWorld* world = here();
    return world != nullptr ? world->entropy() : __real__ZNSt13random_device9_M_getvalEv(device);
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

}  // extern "C"

}  // namespace ferovane::testing
