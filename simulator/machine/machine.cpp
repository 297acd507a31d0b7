#include "simulator/machine/machine.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <ctime>
#include <limits>
#include <stdexcept>

#include "simulator/machine/fans.h"
#include "simulator/machine/faults.h"
#include "simulator/machine/heat.h"
#include "simulator/machine/key_table.h"

namespace simulator {
namespace {

// The step of heat and fans: well below the quickest time constant, the motors' half second.
constexpr double kStepSeconds = 0.1;
// A long time is passed in fewer, larger steps; they are stable at any size.
constexpr double kMostSteps = 36000;
// The host's clock is caught up with in such pieces: nothing in the machine moves faster.
constexpr double kHostPieceSeconds = 0.005;
// Longer than the slowest part, the battery, takes to settle.
constexpr double kSettledSeconds = 3600;
constexpr double kSettlingStepSeconds = 0.5;  // on the way to the end of it, details do not matter
// Between looks at whether the log takes lines again.
constexpr useconds_t kLogLookMicroseconds = 10000;
// A machine has been running for a while when it is first seen.
constexpr double kUptimeAtCreation = 1000;

double hostClockSeconds() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

void passHeatInSteps(World& world, double dt, double steps) {
    for (double step = 0; step < steps; ++step) {
        Fans::step(world, dt);
        Heat::step(world, dt);
    }
}

double nextPending(const WorldState& state) {
    double next = std::numeric_limits<double>::infinity();
    if (state.pendingWrites == 0) {
        return next;
    }
    for (const PendingWrite& pending : state.pending) {
        next = pending.time > 0 ? std::min(next, pending.time) : next;
    }
    return next;
}

// The earliest of the writes that are due, or null.
PendingWrite* nextToSettle(WorldState& state) {
    PendingWrite* next = nullptr;
    for (PendingWrite& pending : state.pending) {
        if (pending.time > 0 && pending.time <= state.machineSeconds &&
            (next == nullptr ||
             std::pair(pending.time, pending.order) < std::pair(next->time, next->order))) {
            next = &pending;
        }
    }
    return next;
}

void settlePending(World& world) {
    WorldState& state = world.state();
    if (state.pendingWrites == 0) {
        return;
    }
    while (PendingWrite* next = nextToSettle(state)) {
        PendingWrite& pending = *next;
        KeyRecord* key = KeyTable::find(world, pending.key);
        if (key != nullptr && key->size == pending.size) {
            Fans::write(world, *key, pending.bytes);
            Fans::recordHolder(state, pending.process);
            world.note(kSystemItself, "a delayed write settled");
        }
        pending.time = 0;
        --state.pendingWrites;
    }
}

void runWhatIsDue(World& world) {
    settlePending(world);
    Fans::runEvents(world);
    if (world.state().nextDue <= world.state().machineSeconds) {
        Faults::runDue(world);
    }
}

}  // namespace

void passHeat(World& world, double seconds) {
    const double steps = std::clamp(std::ceil(seconds / kStepSeconds), 1.0, kMostSteps);
    passHeatInSteps(world, seconds / steps, steps);
}

void settleHeat(World& world) {
    const PropertyValue charge = world.property(Property::kBatteryPercent);
    passHeatInSteps(world, kSettlingStepSeconds, kSettledSeconds / kSettlingStepSeconds);
    world.property(Property::kBatteryPercent) = charge;
}

void passTime(World& world, double seconds) {
    WorldState& state = world.state();
    const double awakeUntil = state.machineSeconds - state.sleptSeconds + seconds;
    while (true) {
        runWhatIsDue(world);
        const double end = awakeUntil + state.sleptSeconds;  // it may have slept on the way
        const double due =
            std::min({state.nextDue, Fans::nextEvent(state), nextPending(state), end});
        const double piece = due - state.machineSeconds;
        if (piece > 0) {
            // Heat does not run backwards.
            passHeat(world, piece * std::max(world.number(Property::kSpeed, 1), 0.0));
            state.machineSeconds = due;
        } else if (due >= end) {
            return;
        }
    }
}

Machine::Machine(std::unique_ptr<StateStore> store, std::unique_ptr<Journal> journal,
                 std::string root)
    : store_(std::move(store)),
      journal_(std::move(journal)),
      root_(std::move(root)),
      world_(*store_, *journal_) {}

Machine::Hold::Hold(Machine& machine) : machine_(machine) {
    if (machine_.store_->lock()) {
        machine_.world_.repair();
    }
    machine_.catchUp();
}

Machine::Hold::~Hold() {
    machine_.store_->unlock();
}

void Machine::catchUp() {
    WorldState& state = store_->state();
    if (state.clockMode != ClockMode::kHost) {
        return;
    }
    const double now = hostClockSeconds();
    if (now < state.nextHostWork && now >= state.hostSeconds) {
        return;
    }
    // The host's clock starts anew when it boots: then no time has passed.
    const double passed = std::max(now - state.hostSeconds, 0.0);
    const bool first = state.hostSeconds == 0;
    state.hostSeconds = now;
    state.nextHostWork = now + kHostPieceSeconds;
    if (!first && passed > 0) {
        passTime(world_, passed);
    }
}

ControllerAnswer Machine::call(const ControllerBlock& in, ControllerBlock& out) {
    const Hold hold(*this);
    const bool privileged = in.command != kWriteCommand ||
                            world_.number(Property::kPrivileged, ::geteuid() == 0 ? 1 : 0) != 0;
    return Controller::call(world_, in, out, privileged);
}

void Machine::advance(double seconds) {
    locked([seconds](World& world) {
        if (world.state().clockMode != ClockMode::kVirtual) {
            throw std::logic_error("this machine follows the host's clock");
        }
        passTime(world, std::max(seconds, 0.0));
    });
}

double Machine::continuousSeconds(double hostSeconds) {
    return locked([hostSeconds](World& world) {
        const WorldState& state = world.state();
        return state.clockMode == ClockMode::kHost ? hostSeconds + state.sleptSeconds
                                                   : kUptimeAtCreation + state.machineSeconds;
    });
}

double Machine::uptimeSeconds(double hostSeconds) {
    return locked([hostSeconds](World& world) {
        const WorldState& state = world.state();
        return state.clockMode == ClockMode::kHost
                   ? hostSeconds
                   : kUptimeAtCreation + state.machineSeconds - state.sleptSeconds;
    });
}

std::string Machine::cpuBrand() {
    return locked([](World& world) { return std::string(world.state().brand); });
}

bool Machine::appleSilicon() {
    return locked([](World& world) { return world.state().appleSilicon != 0; });
}

std::string Machine::systemVersion() {
    return locked([](World& world) { return std::string(world.state().systemVersion); });
}

std::optional<double> Machine::published(Property property) {
    return locked([property](World& world) { return world.number(property); });
}

std::optional<double> Machine::processorCount() {
    return published(Property::kProcessors);
}

std::optional<double> Machine::thermalState() {
    return locked([](World& world) -> std::optional<double> {
        return world.property(Property::kThermalState).form == PropertyForm::kFollows
                   ? Heat::thermalState(world.state().heat)
                   : world.number(Property::kThermalState);
    });
}

std::optional<double> Machine::lowPowerMode() {
    return published(Property::kLowPowerFlag);
}

void Machine::log(std::string_view line) {
    const auto hangs = [](World& world) {
        return Faults::strike(world, FaultKind::kLogHangs, 0) != nullptr;
    };
    while (locked(hangs)) {
        ::usleep(kLogLookMicroseconds);
    }
    locked([line](World& world) { world.noteProcess("log " + std::string(line)); });
}

std::optional<double> Machine::memoryPressureLevel() {
    return published(Property::kMemoryPressure);
}

}  // namespace simulator
