#include "simulator/machine/faults.h"

#include <algorithm>
#include <cstdio>
#include <limits>
#include <stdexcept>

#include "simulator/machine/four_characters.h"
#include "simulator/machine/happening_effects.h"

namespace simulator::Faults {
namespace {

constexpr std::uint64_t kNever = std::numeric_limits<std::uint64_t>::max();

bool hasCome(const WorldState& state, const FaultRecord& fault) {
    switch (static_cast<Moment::Kind>(fault.momentKind)) {
        case Moment::Kind::kNow:
            return true;
        case Moment::Kind::kTime:
            return fault.momentSeconds <= state.machineSeconds;
        case Moment::Kind::kCall:
            return fault.momentCount <= state.totalCalls;
        case Moment::Kind::kWrite:
            return fault.momentCount <= state.totalWrites;
    }
    return true;
}

void findNextDue(WorldState& state) {
    state.nextDue = std::numeric_limits<double>::infinity();
    state.nextCallDue = kNever;
    state.nextWriteDue = kNever;
    for (const FaultRecord& fault : state.faults) {
        if (fault.phase != FaultPhase::kWaiting) {
            continue;
        }
        switch (static_cast<Moment::Kind>(fault.momentKind)) {
            case Moment::Kind::kNow:
            case Moment::Kind::kTime:
                state.nextDue = std::min(state.nextDue, fault.momentSeconds);
                break;
            case Moment::Kind::kCall:
                state.nextCallDue = std::min(state.nextCallDue, fault.momentCount);
                break;
            case Moment::Kind::kWrite:
                state.nextWriteDue = std::min(state.nextWriteDue, fault.momentCount);
                break;
        }
    }
}

void release(WorldState& state, FaultRecord& fault) {
    if (fault.phase == FaultPhase::kActive) {
        --state.activeFaults;
    }
    fault.phase = FaultPhase::kFree;
}

void noteFault(World& world, const FaultRecord& fault, const char* what) {
    char line[kJournalLineSize];
    std::snprintf(line, sizeof line, "fault %s%s", text(fault).c_str(), what);
    world.note(kOutsideWorld, line);
}

// Its moment has come: a lasting fault becomes active, a momentary one happens.
void happen(World& world, FaultRecord& fault) {
    fault.momentKind = static_cast<std::uint32_t>(Moment::Kind::kNow);
    if (isLasting(static_cast<FaultKind>(fault.kind))) {
        fault.phase = FaultPhase::kActive;
        ++world.state().activeFaults;
        noteFault(world, fault, "");
        return;
    }
    const FaultRecord happening = fault;
    fault.phase = FaultPhase::kFree;
    HappeningEffects::apply(world, happening);
}

FaultRecord* freeSlot(WorldState& state) {
    auto* const slot =
        std::find_if(std::begin(state.faults), std::end(state.faults),
                     [](const FaultRecord& fault) { return fault.phase == FaultPhase::kFree; });
    return slot == std::end(state.faults) ? nullptr : slot;
}

FaultRecord* used(World& world, FaultRecord& fault) {
    if (++fault.strikes == 1) {
        noteFault(world, fault, " strikes");
    }
    if (fault.times > 0 && --fault.times == 0) {
        release(world.state(), fault);
    }
    return &fault;
}

// The earliest waiting record that is due: happenings keep their order in time.
FaultRecord* nextToHappen(WorldState& state) {
    FaultRecord* next = nullptr;
    for (FaultRecord& fault : state.faults) {
        if (fault.phase == FaultPhase::kWaiting && hasCome(state, fault) &&
            (next == nullptr || fault.momentSeconds < next->momentSeconds)) {
            next = &fault;
        }
    }
    return next;
}

}  // namespace

bool isLasting(FaultKind kind) {
    return kind < FaultKind::kVanishFan;
}

void befall(World& world, const FaultRecord& fault) {
    WorldState& state = world.state();
    if (static_cast<FaultKind>(fault.kind) == FaultKind::kClearFaults && hasCome(state, fault)) {
        HappeningEffects::apply(world, fault);  // needs no free place
        return;
    }
    FaultRecord* slot = freeSlot(state);
    if (slot == nullptr) {
        throw std::runtime_error("more than " + std::to_string(kMaxFaults) +
                                 " faults are pending on this machine");
    }
    *slot = fault;
    slot->phase = FaultPhase::kWaiting;
    if (hasCome(state, fault)) {
        happen(world, *slot);
    }
    findNextDue(state);
}

void runDue(World& world) {
    WorldState& state = world.state();
    while (FaultRecord* fault = nextToHappen(state)) {
        happen(world, *fault);
    }
    findNextDue(state);
}

FaultRecord* strike(World& world, FaultKind kind, std::uint32_t key) {
    WorldState& state = world.state();
    if (state.activeFaults == 0) {
        return nullptr;
    }
    for (FaultRecord& fault : state.faults) {
        if (fault.phase == FaultPhase::kActive && fault.kind == static_cast<std::uint32_t>(kind) &&
            (fault.key == 0 || fault.key == key)) {
            return used(world, fault);
        }
    }
    return nullptr;
}

FaultRecord* strikeTool(World& world, FaultKind kind, std::string_view tool) {
    for (FaultRecord& fault : world.state().faults) {
        const std::string_view only(fault.tool);
        if (fault.phase == FaultPhase::kActive && fault.kind == static_cast<std::uint32_t>(kind) &&
            (only.empty() || only == tool)) {
            return used(world, fault);
        }
    }
    return nullptr;
}

std::vector<FaultRecord> pending(World& world) {
    std::vector<FaultRecord> found;
    for (const FaultRecord& fault : world.state().faults) {
        if (fault.phase != FaultPhase::kFree) {
            found.push_back(fault);
        }
    }
    return found;
}

void clear(World& world) {
    WorldState& state = world.state();
    for (FaultRecord& fault : state.faults) {
        release(state, fault);
    }
    for (std::uint32_t i = 0; i < state.fanCount; ++i) {
        state.fans[i].rivalPeriod = 0;
        state.fans[i].rivalNextTime = 0;
        state.fans[i].vanished = 0;
    }
    findNextDue(state);
}

}  // namespace simulator::Faults
