#include "simulator/machine/writes.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include "simulator/machine/fans.h"
#include "simulator/machine/four_characters.h"

namespace simulator::Writes {
namespace {

void open(WorldState& state, const KeyRecord& key, const std::uint8_t* bytes) {
    OpenWrite& write = state.openWrite;
    write.process = static_cast<std::int32_t>(::getpid());
    write.key = key.code;
    write.line = state.journalLines + 1;
    std::memcpy(write.bytes, bytes, kReturnedBytes);
    keepStoreOrder();
    write.active = 1;
    keepStoreOrder();
}

std::string valueText(const KeyRecord* key, const std::uint8_t* bytes, std::uint32_t size) {
    const auto number = key != nullptr ? KeyTable::decode(*key, bytes) : std::nullopt;
    char text[2 * kReturnedBytes + 8];
    if (number) {
        // A float has seven digits: more would be noise.
        std::snprintf(text, sizeof text, key->type == packed("flt ") ? "%.7g" : "%.10g", *number);
        return text;
    }
    char* end = text + std::snprintf(text, sizeof text, "0x");
    for (std::size_t i = 0; i < std::min<std::size_t>(size, kReturnedBytes); ++i) {
        end += std::snprintf(end, 3, "%02X", bytes[i]);
    }
    return text;
}

void noteBy(World& world, std::int32_t process, std::uint32_t code, const std::string& value,
            const Outcome& outcome) {
    char who[16];
    std::snprintf(who, sizeof who, "%d", process);
    char line[160];
    if (outcome.ioCode != 0) {
        std::snprintf(line, sizeof line, "write %s=%s -> %08X%s", unpacked(code).c_str(),
                      value.c_str(), static_cast<unsigned>(outcome.ioCode), outcome.remark);
    } else {
        std::snprintf(line, sizeof line, "write %s=%s -> %02X%s", unpacked(code).c_str(),
                      value.c_str(), outcome.result, outcome.remark);
    }
    world.note(who, line);
}

}  // namespace

int apply(World& world, KeyRecord& key, const std::uint8_t* bytes) {
    open(world.state(), key, bytes);
    const int result = Fans::write(world, key, bytes);
    Fans::recordHolder(world.state(), world.state().openWrite.process);
    return result;
}

void note(World& world, std::uint32_t code, const KeyRecord* key, const std::uint8_t* bytes,
          std::uint32_t size, const Outcome& outcome) {
    noteBy(world, static_cast<std::int32_t>(::getpid()), code, valueText(key, bytes, size),
           outcome);
    keepStoreOrder();
    world.state().openWrite.active = 0;
}

void repair(World& world) {
    WorldState& state = world.state();
    const OpenWrite write = state.openWrite;
    KeyRecord* key = write.active != 0 ? KeyTable::find(world, write.key) : nullptr;
    if (key != nullptr && state.journalLines < write.line) {
        // Whether it was applied is not known: applied twice it does the same.
        Outcome outcome;
        outcome.result = static_cast<std::uint8_t>(Fans::write(world, *key, write.bytes));
        Fans::recordHolder(state, write.process);
        noteBy(world, write.process, write.key, valueText(key, write.bytes, key->size), outcome);
    }
    keepStoreOrder();
    state.openWrite.active = 0;  // last, for the repairing process may be killed as well
}

}  // namespace simulator::Writes
