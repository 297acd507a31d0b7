#include "simulator/machine/world.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "simulator/machine/key_table.h"
#include "simulator/machine/writes.h"

namespace simulator {
namespace {

constexpr double kFallbackTemperature = 40;  // °C, for a node that a killed process left undefined

void repairFans(WorldState& state) {
    for (FanRecord& fan : state.fans) {
        fan.rpm = std::isfinite(fan.rpm) ? fan.rpm : 0;
        fan.target = std::isfinite(fan.target) ? fan.target : 0;
    }
}

void repairHeat(WorldState& state) {
    for (double& temperature : state.heat.temperature) {
        temperature = std::isfinite(temperature) ? temperature : kFallbackTemperature;
    }
}

// Counts that are kept beside the things they count.
void repairCounts(WorldState& state) {
    state.activeFaults = static_cast<std::uint32_t>(
        std::count_if(std::begin(state.faults), std::end(state.faults),
                      [](const FaultRecord& fault) { return fault.phase == FaultPhase::kActive; }));
    state.pendingWrites = static_cast<std::uint32_t>(
        std::count_if(std::begin(state.pending), std::end(state.pending),
                      [](const PendingWrite& pending) { return pending.time > 0; }));
    state.faultSlots = kMaxFaults;
    state.nextDue = 0;
    state.nextCallDue = 0;
    state.nextWriteDue = 0;
}

}  // namespace

void World::note(std::string_view who, std::string_view what) {
    WorldState& now = state();
    char* line = now.openLine;
    const int size = std::snprintf(line, kJournalLineSize, "%llu %.3f %.*s %.*s",
                                   static_cast<unsigned long long>(now.journalLines + 1),
                                   now.machineSeconds, static_cast<int>(who.size()), who.data(),
                                   static_cast<int>(what.size()), what.data());
    now.openLineSize = static_cast<std::uint32_t>(
        std::clamp<int>(size, 0, static_cast<int>(kJournalLineSize) - 1));
    keepStoreOrder();  // an open line first, then its number: otherwise a number could be lost
    ++now.journalLines;
    keepStoreOrder();
    writeOpenLine();
}

void World::writeOpenLine() {
    WorldState& now = state();
    if (!journal_->append({now.openLine, now.openLineSize})) {
        ++now.journalLost;
    }
    keepStoreOrder();
    now.openLineSize = 0;
}

void World::noteProcess(std::string_view what) {
    char who[16];
    std::snprintf(who, sizeof who, "%ld", static_cast<long>(::getpid()));
    note(who, what);
}

void World::repair() {
    WorldState& now = state();
    journal_->dropHalfLine();
    if (now.openLineSize != 0) {
        now.openLineSize = std::min<std::uint32_t>(now.openLineSize, kJournalLineSize - 1);
        const auto number = std::strtoull(now.openLine, nullptr, 10);
        if (std::strtoull(journal_->lastLine().c_str(), nullptr, 10) != number) {
            writeOpenLine();
        }
        now.openLineSize = 0;
        now.journalLines = std::max<std::uint64_t>(now.journalLines, number);
    }
    now.keyCount = std::min(now.keyCount, now.keyCapacity);
    KeyTable::reindex(*this);
    now.keysBusy = 0;
    repairFans(now);
    repairHeat(now);
    repairCounts(now);
    Writes::repair(*this);
}

}  // namespace simulator
