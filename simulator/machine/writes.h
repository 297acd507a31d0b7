// A controller write as one act: the machine changes and the journal tells of it, or neither, even
// when the writing process is killed in between.
#pragma once

#include <cstdint>

#include "simulator/machine/key_table.h"
#include "simulator/machine/world.h"

namespace simulator::Writes {

// What became of a write, for its journal line.
struct Outcome {
    int ioCode = 0;           // IOKit's; the controller was not reached when it is not 0
    std::uint8_t result = 0;  // the controller's
    const char* remark = "";
};

// Changes the machine by the controller's rules and returns the result byte. note() must follow.
int apply(World& world, KeyRecord& key, const std::uint8_t* bytes);

// Adds the journal line of a write by this process, whether it was applied or refused. key may be
// null: then the bytes are shown as they are.
void note(World& world, std::uint32_t code, const KeyRecord* key, const std::uint8_t* bytes,
          std::uint32_t size, const Outcome& outcome);

// Completes a write whose process died between apply and note.
void repair(World& world);

}  // namespace simulator::Writes
