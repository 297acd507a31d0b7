// Everything a simulated Mac is, as one block of plain data: it lies in memory, or in the "state"
// file that all processes attached to the machine map.
//
// Nothing in it is a pointer. A process may be killed between any two stores: every single field is
// valid by itself at any time, and repair() makes the whole consistent again.
#pragma once

#include <pthread.h>

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>

#include "simulator/machine/happenings.h"
#include "simulator/machine/property.h"

namespace simulator {

inline constexpr std::uint64_t kStateMagic = 0x46564D4143534D31;  // "FVMACSM1"
inline constexpr std::uint32_t kStateVersion = 1;

inline constexpr std::size_t kMaxFans = 10;
inline constexpr std::size_t kMaxFaults = 128;
inline constexpr std::size_t kMaxPendingWrites = 32;
inline constexpr std::size_t kMaxAssertions = 64;
inline constexpr std::size_t kMaxPowerSettings = 128;
inline constexpr std::size_t kReturnedBytes = 32;  // a structure read returns no more
inline constexpr std::size_t kJournalLineSize = 256;

// What stands behind a key's value.
enum class KeyRole : std::uint8_t {
    kStored,  // its bytes, as last written
    kHeat,    // idle + gain * (source node now - as in the dump)
    kFanRpm,
    kFanTarget,
    kFanMode,
    kFanMinimum,
    kFanMaximum,
    kFanCount,
    kForcedMask,
    kUnlock,
    kKeyCount,
    kAdapterPower,
    kAdapterVoltage,
    kAdapterCurrent,
    kBatteryPower,
    kBatteryMillivolts,
    kBatteryMilliamps,
    kBatteryCycles,
    kBatteryPercent,
    kBatteryPowered,  // "BATP"
};

// The nodes that keys of the role kHeat follow: temperatures, then powers.
enum class HeatNode : std::uint8_t {
    kDie,
    kGraphics,
    kSink,
    kStorage,
    kBattery,
    kEnclosure,
    kAmbient,
    kProcessorPower,
    kGraphicsPower,
    kTotalPower,
    kCount
};
inline constexpr std::size_t kHeatNodes = static_cast<std::size_t>(HeatNode::kCount);

// One key. `bytes` hold the value of a stored key, and the idle value of the others.
struct KeyRecord {
    std::uint32_t code;
    std::uint32_t type;
    std::uint32_t size;  // as the controller claims it; may exceed what it returns
    std::uint8_t attributes;
    std::uint8_t readResult;  // what a read answers, 0 when it succeeds
    KeyRole role;
    std::uint8_t fan;
    HeatNode node;
    std::uint8_t integerOrder;
    std::uint16_t unused;
    float idle;
    float gain;
    std::uint8_t bytes[kReturnedBytes];
};

// Lookup by name: sorted by code, beside the keys, which stay in the controller's own order.
struct KeyIndexEntry {
    std::uint32_t code;
    std::uint32_t position;
};

inline constexpr std::int32_t kHeldByOther = -1;

enum class ControllerKind : std::uint32_t { kNone, kForcedMask, kT2, kAppleSilicon };

struct FanRecord {
    double rpm;
    double target;
    double minimum;
    double maximum;
    double reachable;     // rpm the motor can do, whatever the target
    double restFraction;  // what the automatic control asks for at the dump's heat, 0 to 1
    double restTarget;    // where the fan rests while the machine is cool, if below the minimum
    double startAbove;    // °C of the die: where a resting fan starts again
    double rivalTarget;   // another program's, written every rivalPeriod seconds
    double rivalPeriod;   // 0: no rival
    double rivalNextTime;
    double modeChangeTime;  // when the system turns modeChangeTo on; 0: nothing is to come
    std::uint32_t mode;     // 0 automatic, 1 manual, 3 held by the system
    std::uint32_t modeChangeTo;
    std::uint32_t vanished;
    std::uint32_t resting;  // stopped or slowed by the system because the machine is cool
    std::int32_t holder;    // process that took it: its id, kHeldByOther, or 0 for the system
    std::uint32_t unused;
};

// Heat conductances in W/K and capacities in J/K are relative to the power at full load, so that
// one set of figures serves every machine.
struct HeatState {
    double temperature[kHeatNodes];  // °C; powers as fractions of full processor power
    double rest[kHeatNodes];         // the same as the key dump has them
    double controlTemperature;       // what the automatic fan control sees
    double throttle;                 // 1: full speed
    double restAmbient;
    double idleFraction;      // of full processor power, at no load
    double graphicsFraction;  // of full processor power, at full graphics load
    double fullWatts;         // processor power at full load
    double graphicsWatts;     // at full graphics load
    double restFraction;      // of full processor power, in the key dump
    double restWatts;         // of the processor, in the key dump
    double baseWatts;         // everything else
    double dieResistance;     // K at full processor power
    double graphicsResistance;
    double sinkConductance;  // to the air at full fan speed, 1/K
    double stillAirShare;    // of sinkConductance without any air flow
};

struct PropertyValue {
    double number;
    PropertyForm form;
    std::uint32_t unused;
};

enum class FaultPhase : std::uint32_t { kFree, kWaiting, kActive };

// A fault or a happening to come; `kind` indexes the table in faults.cpp.
struct FaultRecord {
    FaultPhase phase;
    std::uint32_t kind;
    std::uint32_t momentKind;
    std::uint32_t key;  // 0: any
    double momentSeconds;
    std::uint64_t momentCount;
    std::int32_t times;  // kForGood, or how often it still strikes
    std::int32_t code;
    std::int32_t fan;
    std::uint32_t property;
    double number;
    double seconds;
    std::uint32_t form;
    std::uint32_t strikes;  // how often it struck
    std::uint32_t unused;
    std::uint32_t frozenSize;  // of `frozen`; 0 until the first read
    std::uint8_t frozen[kReturnedBytes];
    char tool[8];
    char text[64];
};

struct PendingWrite {
    double time;  // 0: free
    std::uint32_t key;
    std::uint32_t size;
    std::int32_t process;  // that wrote
    std::uint32_t order;   // among writes that settle at the same time
    std::uint8_t bytes[kReturnedBytes];
};

struct AssertionRecord {
    std::int32_t used;
    std::int32_t pid;
    std::int64_t level;
    double since;
    char process[48];
    char type[48];
    char reason[96];
};

struct PowerSettingRecord {
    std::uint32_t used;
    char source[20];
    char name[32];
    char value[48];
};

// A write that is being applied and not yet in the journal.
struct OpenWrite {
    std::uint32_t active;
    std::int32_t process;
    std::uint32_t key;
    std::uint32_t unused;
    std::uint64_t line;  // the number its journal line will have
    std::uint8_t bytes[kReturnedBytes];
};

enum class ClockMode : std::uint32_t { kVirtual, kHost };

struct WorldState {
    std::uint64_t magic;
    std::uint32_t version;
    std::uint32_t headerSize;  // sizeof(WorldState): another build's layout is another format
    std::uint64_t fileSize;
    std::uint32_t keyCapacity;
    std::uint32_t keyCount;
    std::uint32_t keysBusy;  // the key table is being changed
    std::uint32_t ready;     // creation is complete

#if defined(__linux__)
    pthread_mutex_t mutex;  // process-shared and robust
#endif

    char model[32];
    char brand[64];
    char systemVersion[16];
    ControllerKind controller;
    std::uint32_t hiddenKeys;  // that "#KEY" counts and no index lists
    std::uint32_t appleSilicon;
    std::uint32_t automaticMode;  // mode of a fan under the system's control: 0 or 3
    std::uint32_t raisesLowTargets;
    std::uint32_t fanCount;
    std::uint32_t forcedMask;
    std::uint32_t unlock;        // "Ftst"
    std::uint32_t randomState;   // of garbage reads
    std::uint32_t lastPosition;  // key found last: most calls come in pairs
    std::uint32_t unused;
    double unlockLostTime;  // when the thermal daemon looks again; 0: it does not

    ClockMode clockMode;
    std::uint32_t unused2;
    double machineSeconds;  // since creation, sleep included
    double sleptSeconds;
    double hostSeconds;   // of the host's clock, when time was last caught up
    double nextHostWork;  // host time from which on catching up is worth it
    double nextDue;       // machine time of the earliest waiting happening, or infinity

    std::uint64_t calls[16];  // by command
    std::uint64_t totalCalls;
    std::uint64_t totalWrites;
    std::uint64_t nextCallDue;   // total calls at which a waiting happening may be due
    std::uint64_t nextWriteDue;  // the same of writes
    std::uint64_t journalLines;
    std::uint64_t journalLost;  // lines that did not fit on the disk
    std::uint32_t activeFaults;
    std::uint32_t faultSlots;  // how many of `faults` may be in use
    std::uint32_t pendingWrites;
    std::uint32_t unused4;

    PropertyValue properties[static_cast<std::size_t>(Property::kCount)];
    FanRecord fans[kMaxFans];
    HeatState heat;
    FaultRecord faults[kMaxFaults];
    PendingWrite pending[kMaxPendingWrites];
    AssertionRecord assertions[kMaxAssertions];
    PowerSettingRecord powerSettings[kMaxPowerSettings];

    OpenWrite openWrite;

    // The journal line that is being written: whoever finds it set after a process died completes
    // it.
    std::uint32_t openLineSize;
    std::uint32_t unused3;
    char openLine[kJournalLineSize];
};

// Fills a field of the state; the rest of it becomes zeros. Throws std::runtime_error.
template <std::size_t kSize>
void copyText(std::string_view text, char (&field)[kSize]) {
    if (text.size() >= kSize) {
        throw std::runtime_error("too long: " + std::string(text));
    }
    std::fill(std::copy(text.begin(), text.end(), field), field + kSize, '\0');
}

static_assert(std::is_trivially_copyable_v<WorldState> && std::is_standard_layout_v<WorldState>);
static_assert(std::is_trivially_copyable_v<KeyRecord> && sizeof(KeyRecord) == 60);

}  // namespace simulator
