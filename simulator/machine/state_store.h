// Where a machine's state lies, and the lock over it.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>

#include "simulator/machine/world_state.h"

namespace simulator {

class StateStore {
public:
    virtual ~StateStore() = default;
    StateStore() = default;
    StateStore(const StateStore&) = delete;
    StateStore& operator=(const StateStore&) = delete;

    // True when a process died while it held the lock: the caller repairs the state.
    virtual bool lock() = 0;
    virtual void unlock() = 0;

    // Makes room for that many keys. Throws std::runtime_error where the size is fixed.
    virtual void reserveKeys(std::size_t count) = 0;

    // Between lock and unlock. Pointers hold until reserveKeys.
    WorldState& state() { return *state_; }
    KeyRecord* keys() { return keys_; }
    KeyIndexEntry* index() { return index_; }

protected:
    void pointInto(std::byte* base, std::size_t keyCapacity);
    static std::size_t sizeFor(std::size_t keyCapacity);

private:
    WorldState* state_ = nullptr;
    KeyRecord* keys_ = nullptr;
    KeyIndexEntry* index_ = nullptr;
};

// In this process only; grows as keys are added.
class MemoryStore : public StateStore {
public:
    explicit MemoryStore(std::size_t keyCapacity);
    bool lock() override;
    void unlock() override;
    void reserveKeys(std::size_t count) override;

private:
    std::mutex mutex_;
    std::unique_ptr<std::byte[]> block_;
};

// The "state" file of a machine directory, mapped by every attached process.
class FileStore : public StateStore {
public:
    // A new file, its disk blocks allocated, not `ready` yet. Throws std::runtime_error and leaves
    // no file behind when that fails.
    static std::unique_ptr<FileStore> create(const std::string& path, std::size_t keyCapacity);
    // An existing one; throws std::runtime_error when it is not a state file of this version.
    static std::unique_ptr<FileStore> open(const std::string& path);
    ~FileStore() override;

    bool lock() override;
    void unlock() override;
    void reserveKeys(std::size_t count) override;

private:
    FileStore(int descriptor, std::byte* base, std::size_t size);

    int descriptor_;
    std::byte* base_;
    std::size_t size_;
    std::mutex mutex_;  // where the system has no robust process-shared mutex: with flock
};

}  // namespace simulator
