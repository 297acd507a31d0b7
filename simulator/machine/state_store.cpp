#include "simulator/machine/state_store.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace simulator {
std::size_t StateStore::sizeFor(std::size_t keyCapacity) {
    return sizeof(WorldState) + keyCapacity * (sizeof(KeyRecord) + sizeof(KeyIndexEntry));
}

void StateStore::pointInto(std::byte* base, std::size_t keyCapacity) {
    state_ = std::launder(reinterpret_cast<WorldState*>(base));
    keys_ = std::launder(reinterpret_cast<KeyRecord*>(base + sizeof(WorldState)));
    index_ = std::launder(reinterpret_cast<KeyIndexEntry*>(base + sizeof(WorldState) +
                                                           keyCapacity * sizeof(KeyRecord)));
}

MemoryStore::MemoryStore(std::size_t keyCapacity)
    : block_(std::make_unique<std::byte[]>(sizeFor(keyCapacity))) {
    pointInto(block_.get(), keyCapacity);
    state().keyCapacity = static_cast<std::uint32_t>(keyCapacity);
}

bool MemoryStore::lock() {
    mutex_.lock();
    return false;
}

void MemoryStore::unlock() {
    mutex_.unlock();
}

void MemoryStore::reserveKeys(std::size_t count) {
    if (count <= state().keyCapacity) {
        return;
    }
    const std::size_t capacity = std::max<std::size_t>(count, 2 * state().keyCapacity);
    auto larger = std::make_unique<std::byte[]>(sizeFor(capacity));
    const WorldState* oldState = &state();
    const KeyRecord* oldKeys = keys();
    const KeyIndexEntry* oldIndex = index();
    const std::size_t used = oldState->keyCount;
    pointInto(larger.get(), capacity);
    std::memcpy(&state(), oldState, sizeof(WorldState));
    std::memcpy(keys(), oldKeys, used * sizeof(KeyRecord));
    std::memcpy(index(), oldIndex, used * sizeof(KeyIndexEntry));
    state().keyCapacity = static_cast<std::uint32_t>(capacity);
    block_ = std::move(larger);
}

}  // namespace simulator
