// Named faults and happenings: their text form, when they strike, and what the momentary ones do.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "simulator/machine/world.h"

namespace simulator::Faults {

// The record of a happening at a moment. Throws std::runtime_error when a text is too long.
FaultRecord record(const Happening& happening, const Moment& moment);

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

}  // namespace simulator::Faults
