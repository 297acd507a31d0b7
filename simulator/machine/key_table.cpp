#include "simulator/machine/key_table.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>

#include "simulator/machine/four_characters.h"
#include "simulator/machine/power_keys.h"
#include "simulator/machine/value_codec.h"

namespace simulator {
namespace {

bool byCode(const KeyIndexEntry& left, const KeyIndexEntry& right) {
    return left.code < right.code;
}

bool vanished(World& world, std::uint32_t code) {
    const auto fan = fanOfKey(code);
    return fan && world.state().fans[*fan].vanished != 0;
}

// "FNum" counts up to the highest fan that is left.
double fanCountShown(World& world) {
    std::uint32_t count = world.state().fanCount;
    while (count > 0 && world.state().fans[count - 1].vanished != 0) {
        --count;
    }
    return count;
}

KeyRecord record(const KeyDefinition& definition) {
    KeyRecord key = {};
    key.code = definition.code;
    key.type = definition.type;
    key.size = definition.size;
    key.attributes = definition.attributes;
    key.readResult = definition.readResult;
    std::copy_n(definition.bytes.begin(), std::min(definition.bytes.size(), kReturnedBytes),
                key.bytes);
    return key;
}

// The integer order of a controller: native on Apple Silicon, but for the key count.
std::uint8_t integerOrder(World& world, std::uint32_t code) {
    const bool little =
        world.state().controller == ControllerKind::kAppleSilicon && code != packed("#KEY");
    return static_cast<std::uint8_t>(little ? IntegerOrder::kLittleEndian
                                            : IntegerOrder::kBigEndian);
}

void storeForcedMask(WorldState& state, double number) {
    state.forcedMask = static_cast<std::uint32_t>(number);
    for (std::uint32_t fan = 0; fan < state.fanCount; ++fan) {
        state.fans[fan].mode = state.forcedMask >> fan & 1;
    }
}

// False for a key that stands for nothing that can be set: its bytes are kept instead.
bool storeNumber(WorldState& state, const KeyRecord& key, double number) {
    FanRecord& fan = state.fans[key.fan];
    switch (key.role) {
        case KeyRole::kFanRpm:
            fan.rpm = number;
            return true;
        case KeyRole::kFanTarget:
            fan.target = number;
            return true;
        case KeyRole::kFanMode:
            fan.mode = static_cast<std::uint32_t>(number);
            return true;
        case KeyRole::kFanMinimum:
            fan.minimum = number;
            return true;
        case KeyRole::kFanMaximum:
            fan.maximum = number;
            return true;
        case KeyRole::kForcedMask:
            storeForcedMask(state, number);
            return true;
        case KeyRole::kUnlock:
            state.unlock = static_cast<std::uint32_t>(number);
            return true;
        default:
            return false;
    }
}

}  // namespace

std::optional<std::size_t> fanOfKey(std::uint32_t code) {
    if (characterAt(code, 0) != 'F' || !isDigit(characterAt(code, 1))) {
        return std::nullopt;
    }
    return static_cast<std::size_t>(characterAt(code, 1) - '0');
}

namespace KeyTable {

KeyRecord* find(World& world, std::uint32_t code) {
    WorldState& state = world.state();
    if (vanished(world, code)) {
        return nullptr;
    }
    if (state.lastPosition < state.keyCount && world.keys()[state.lastPosition].code == code) {
        return &world.keys()[state.lastPosition];
    }
    const KeyIndexEntry* begin = world.index();
    const KeyIndexEntry* end = begin + state.keyCount;
    const KeyIndexEntry* found = std::lower_bound(begin, end, KeyIndexEntry{code, 0}, byCode);
    if (found == end || found->code != code || found->position >= state.keyCount) {
        return nullptr;
    }
    state.lastPosition = found->position;
    return &world.keys()[found->position];
}

void reindex(World& world) {
    WorldState& state = world.state();
    for (std::uint32_t i = 0; i < state.keyCount; ++i) {
        world.index()[i] = {world.keys()[i].code, i};
    }
    std::sort(world.index(), world.index() + state.keyCount, byCode);
}

KeyRecord& put(World& world, const KeyDefinition& definition) {
    WorldState& state = world.state();
    KeyRecord key = record(definition);
    key.integerOrder = integerOrder(world, key.code);
    if (KeyRecord* existing = find(world, key.code)) {
        *existing = key;
        return *existing;
    }
    world.store().reserveKeys(state.keyCount + 1);
    WorldState& roomy = world.state();
    const KeyIndexEntry entry = {key.code, roomy.keyCount};
    roomy.keysBusy = 1;
    world.keys()[roomy.keyCount] = key;
    KeyIndexEntry* end = world.index() + roomy.keyCount;
    KeyIndexEntry* place = std::lower_bound(world.index(), end, entry, byCode);
    std::move_backward(place, end, end + 1);
    *place = entry;
    ++roomy.keyCount;
    roomy.keysBusy = 0;
    return world.keys()[entry.position];
}

void remove(World& world, std::uint32_t code) {
    WorldState& state = world.state();
    KeyRecord* key = find(world, code);
    if (key == nullptr) {
        return;
    }
    state.keysBusy = 1;
    std::move(key + 1, world.keys() + state.keyCount, key);
    --state.keyCount;
    reindex(world);
    state.keysBusy = 0;
}

std::optional<double> decode(const KeyRecord& key, const std::uint8_t* bytes) {
    return decodedNumber(key.type, key.size, bytes, static_cast<IntegerOrder>(key.integerOrder));
}

bool encode(const KeyRecord& key, double number, ValueBytes& bytes) {
    bytes.fill(0);
    return key.size <= kReturnedBytes &&
           encodeNumber(key.type, key.size, number, static_cast<IntegerOrder>(key.integerOrder),
                        bytes.data());
}

std::optional<double> number(World& world, const KeyRecord& key) {
    const WorldState& state = world.state();
    const FanRecord& fan = state.fans[key.fan];
    const auto node = static_cast<std::size_t>(key.node);
    switch (key.role) {
        case KeyRole::kStored:
            return decode(key, key.bytes);
        case KeyRole::kHeat:
            return key.idle + key.gain * (state.heat.temperature[node] - state.heat.rest[node]);
        case KeyRole::kFanRpm:
            return fan.rpm;
        case KeyRole::kFanTarget:
            return fan.target;
        case KeyRole::kFanMode:
            return fan.mode;
        case KeyRole::kFanMinimum:
            return fan.minimum;
        case KeyRole::kFanMaximum:
            return fan.maximum;
        case KeyRole::kFanCount:
            return fanCountShown(world);
        case KeyRole::kForcedMask:
            return state.forcedMask;
        case KeyRole::kUnlock:
            return state.unlock;
        case KeyRole::kKeyCount:
            return state.keyCount + state.hiddenKeys;
        default:
            return PowerKeys::number(world, key);
    }
}

ValueBytes value(World& world, const KeyRecord& key) {
    ValueBytes bytes = {};
    if (key.role != KeyRole::kStored) {
        const auto shown = number(world, key);
        if (shown && encode(key, *shown, bytes)) {
            return bytes;
        }
    }
    std::memcpy(bytes.data(), key.bytes, kReturnedBytes);
    return bytes;
}

void store(World& world, KeyRecord& key, const std::uint8_t* bytes) {
    const auto given = decode(key, bytes);
    if (given && storeNumber(world.state(), key, *given)) {
        return;
    }
    std::memcpy(key.bytes, bytes, std::min<std::size_t>(key.size, kReturnedBytes));
    key.role = KeyRole::kStored;
}

}  // namespace KeyTable
}  // namespace simulator
