// The state of a machine while its lock is held, with the few operations that every part needs.
#pragma once

#include <atomic>
#include <optional>
#include <string_view>

#include "simulator/machine/journal.h"
#include "simulator/machine/state_store.h"

namespace simulator {

// Who does something, as the journal names it in its third column.
inline constexpr std::string_view kOtherProgram = "other";
inline constexpr std::string_view kSystemItself = "system";  // controller, thermal daemon, sleep
inline constexpr std::string_view kOutsideWorld = "world";

// A killed process leaves its stores in the order of the program, as long as the compiler keeps it.
inline void keepStoreOrder() {
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

class World {
public:
    World(StateStore& store, Journal& journal) : store_(&store), journal_(&journal) {}

    WorldState& state() { return store_->state(); }
    KeyRecord* keys() { return store_->keys(); }
    KeyIndexEntry* index() { return store_->index(); }
    StateStore& store() { return *store_; }
    Journal& journal() { return *journal_; }

    // Adds a line to the journal, numbered and stamped with the machine's time. Call it after the
    // change it tells of: should the process die in between, the next one finds no half truth.
    void note(std::string_view who, std::string_view what);
    void noteProcess(std::string_view what);  // who: this process's id

    // Completes what a process that died with the lock held may have left undone.
    void repair();

    PropertyValue& property(Property which) {
        return state().properties[static_cast<std::size_t>(which)];
    }
    std::optional<double> number(Property which) {
        const PropertyValue& value = property(which);
        return value.form == PropertyForm::kNumber ? std::optional(value.number) : std::nullopt;
    }
    double number(Property which, double otherwise) { return number(which).value_or(otherwise); }

private:
    void writeOpenLine();

    StateStore* store_;
    Journal* journal_;
};

}  // namespace simulator
