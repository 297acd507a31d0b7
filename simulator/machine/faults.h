// Named faults and happenings: their text form, when they strike, and what the momentary ones do.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "simulator/machine/world.h"

namespace simulator {

enum class FaultKind : std::uint32_t {
    // Lasting: they wait for a controller call or a tool to strike.
    kRefuseWrite,
    kRefuseRead,
    kRefuseCall,
    kIgnoreWrite,
    kDelayWrite,
    kGarbage,
    kZero,
    kFreeze,
    kKeySize,
    kOutputSize,
    kRefuseOpen,
    kToolFails,
    kToolHangs,
    kToolIgnoresSigterm,
    kToolGarbage,
    kToolMegabyte,
    kToolNoEffect,
    // Momentary: they happen once.
    kVanishFan,
    kOtherWrites,
    kTakeFan,
    kReleaseFan,
    kDriftTarget,
    kHoldUnlock,
    kKeepTarget,
    kSet,
    kSleep,
    kClearFaults,
    kCount
};

namespace Faults {

bool isLasting(FaultKind kind);

// One line as the tool's "fault" takes it and its "fault list" prints it, such as
// "refuse-write key=F0Md code=0x82 times=1 call=3". parse throws std::runtime_error with an English
// text; its moment is relative to now where the line says "in=", "call=" or "write=".
FaultRecord parse(World& world, const std::vector<std::string>& words);
std::string text(const FaultRecord& fault);
// One line for each kind of fault: its name, what it takes, what it does.
std::vector<std::string> help();

// Lets it happen now, or keeps it until its moment. Throws std::runtime_error when too many wait.
void befall(World& world, const FaultRecord& fault);
// Lets everything happen whose moment has come.
void runDue(World& world);

// The active fault of a kind that strikes an access to the key (0: none in particular), used up by
// one strike; null when there is none.
FaultRecord* strike(World& world, FaultKind kind, std::uint32_t key);
FaultRecord* strikeTool(World& world, FaultKind kind, std::string_view tool);

std::vector<FaultRecord> pending(World& world);  // waiting and active
void clear(World& world);

}  // namespace Faults
}  // namespace simulator
