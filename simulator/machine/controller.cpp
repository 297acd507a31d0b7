#include "simulator/machine/controller.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "simulator/machine/faults.h"
#include "simulator/machine/key_table.h"
#include "simulator/machine/writes.h"

namespace simulator::Controller {
namespace {

constexpr std::uint8_t kReadCommand = 5;
constexpr std::uint8_t kNameCommand = 8;
constexpr std::uint8_t kInfoCommand = 9;

constexpr std::uint8_t kIndexOutOfRange = 0xB8;

// IOKit return codes, as the platform defines them.
constexpr int kIoError = static_cast<int>(0xE00002BC);
constexpr int kIoNotPrivileged = static_cast<int>(0xE00002C1);

constexpr std::uint8_t resultByte(int code) {
    return static_cast<std::uint8_t>(code);
}

// What one call is about, and what it will answer.
struct Call {
    World& world;
    const ControllerBlock& in;
    ControllerBlock& out;
    bool privileged;
    int code = 0;  // IOKit's
};

// A fault's code is a result byte, or IOKit's own when negative.
void refuse(Call& call, int code) {
    if (code < 0) {
        call.code = code;
    } else {
        call.out.result = resultByte(code);
    }
}

bool refusedByFault(Call& call, FaultKind kind) {
    if (const FaultRecord* fault = Faults::strike(call.world, kind, call.in.key)) {
        refuse(call, fault->code);
        return true;
    }
    return false;
}

void answerInfo(Call& call) {
    if (refusedByFault(call, FaultKind::kRefuseRead)) {
        return;
    }
    const KeyRecord* key = KeyTable::find(call.world, call.in.key);
    if (key == nullptr) {
        call.out.result = resultByte(kKeyNotFound);
        return;
    }
    const FaultRecord* size = Faults::strike(call.world, FaultKind::kKeySize, call.in.key);
    call.out.dataSize = size != nullptr ? static_cast<std::uint32_t>(size->number) : key->size;
    call.out.dataType = key->type;
    call.out.attributes = key->attributes;
}

std::uint32_t nextRandom(WorldState& state) {
    std::uint32_t& x = state.randomState;  // xorshift: reproducible, never 0
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    return x;
}

void disturb(Call& call, ValueBytes& bytes, std::uint32_t size) {
    World& world = call.world;
    if (world.state().activeFaults == 0) {
        return;
    }
    const std::size_t used = std::min<std::size_t>(size, kReturnedBytes);
    if (FaultRecord* frozen = Faults::strike(world, FaultKind::kFreeze, call.in.key)) {
        if (frozen->frozenSize == 0 || frozen->key == 0) {
            std::memcpy(frozen->frozen, bytes.data(), kReturnedBytes);
            frozen->frozenSize = static_cast<std::uint32_t>(used);
        }
        std::memcpy(bytes.data(), frozen->frozen, kReturnedBytes);
    }
    if (Faults::strike(world, FaultKind::kZero, call.in.key) != nullptr) {
        bytes.fill(0);
    }
    if (Faults::strike(world, FaultKind::kGarbage, call.in.key) != nullptr) {
        std::generate_n(bytes.begin(), used, [&world] {
            return static_cast<std::uint8_t>(nextRandom(world.state()) >> 11);
        });
    }
}

void answerRead(Call& call) {
    if (refusedByFault(call, FaultKind::kRefuseRead)) {
        return;
    }
    const KeyRecord* key = KeyTable::find(call.world, call.in.key);
    if (key == nullptr) {
        call.out.result = resultByte(kKeyNotFound);
    } else if (key->readResult != 0) {
        call.out.result = key->readResult;
    } else if (call.in.dataSize != key->size) {
        call.out.result = resultByte(kSizeMismatch);
    } else {
        ValueBytes bytes = KeyTable::value(call.world, *key);
        disturb(call, bytes, key->size);
        std::memcpy(call.out.data, bytes.data(), kReturnedBytes);
    }
}

void noteWrite(Call& call, const KeyRecord* key, const char* remark) {
    Writes::note(call.world, call.in.key, key, call.in.data, call.in.dataSize,
                 {call.code, call.out.result, remark});
}

// Writes to a key settle in the order in which they were made: the time at which the last of those
// under way does, or 0.
double lastToSettle(const WorldState& state, std::uint32_t key) {
    double last = 0;
    for (const PendingWrite& pending : state.pending) {
        if (pending.time > 0 && pending.key == key) {
            last = std::max(last, pending.time);
        }
    }
    return last;
}

std::uint32_t nextInOrder(const WorldState& state) {
    std::uint32_t last = 0;
    for (const PendingWrite& pending : state.pending) {
        last = pending.time > 0 ? std::max(last, pending.order) : last;
    }
    return last + 1;
}

bool postponed(Call& call, const KeyRecord& key) {
    const FaultRecord* delay = Faults::strike(call.world, FaultKind::kDelayWrite, call.in.key);
    WorldState& state = call.world.state();
    const double before = state.pendingWrites > 0 ? lastToSettle(state, key.code) : 0;
    if (delay == nullptr && before == 0) {
        return false;
    }
    const double settles =
        std::max(delay != nullptr ? state.machineSeconds + delay->seconds : 0, before);
    const std::uint32_t order = nextInOrder(state);
    for (PendingWrite& pending : state.pending) {
        if (pending.time == 0) {
            pending.key = key.code;
            pending.size = key.size;
            pending.order = order;
            pending.process = static_cast<std::int32_t>(::getpid());
            std::memcpy(pending.bytes, call.in.data, kReturnedBytes);
            pending.time = settles;
            ++state.pendingWrites;
            return true;
        }
    }
    return false;  // too many are under way: this one settles at once
}

// Why the controller would not take the write, or 0.
int objection(Call& call, const KeyRecord& key) {
    if ((key.attributes & kAttributeWrite) == 0) {
        return kNotWritable;
    }
    return call.in.dataSize != key.size ? kSizeMismatch : 0;
}

const char* perform(Call& call, KeyRecord& key) {
    if (const int code = objection(call, key); code != 0) {
        refuse(call, code);
        return "";
    }
    if (Faults::strike(call.world, FaultKind::kIgnoreWrite, call.in.key) != nullptr) {
        return " ignored";
    }
    if (postponed(call, key)) {
        return " delayed";
    }
    refuse(call, Writes::apply(call.world, key, call.in.data));
    return "";
}

void answerWrite(Call& call) {
    KeyRecord* key = KeyTable::find(call.world, call.in.key);
    const char* remark = "";
    if (!call.privileged) {
        call.code = kIoNotPrivileged;
    } else if (refusedByFault(call, FaultKind::kRefuseWrite)) {
        remark = " by fault";
    } else if (key == nullptr) {
        call.code = kIoError;
    } else {
        remark = perform(call, *key);
    }
    noteWrite(call, key, remark);
}

void answerName(Call& call) {
    if (refusedByFault(call, FaultKind::kRefuseRead)) {
        return;
    }
    if (call.in.index >= call.world.state().keyCount) {
        call.out.result = kIndexOutOfRange;
        return;
    }
    call.out.key = call.world.keys()[call.in.index].code;
}

void dispatch(Call& call) {
    if (refusedByFault(call, FaultKind::kRefuseCall)) {
        if (call.in.command == kWriteCommand) {
            noteWrite(call, KeyTable::find(call.world, call.in.key), " by fault");
        }
        return;
    }
    switch (call.in.command) {
        case kInfoCommand:
            return answerInfo(call);
        case kReadCommand:
            return answerRead(call);
        case kWriteCommand:
            return answerWrite(call);
        case kNameCommand:
            return answerName(call);
        default:
            call.out.result = resultByte(kBadCommand);
    }
}

void count(World& world, std::uint8_t command) {
    WorldState& state = world.state();
    ++state.calls[command & 0x0F];
    ++state.totalCalls;
    state.totalWrites += command == kWriteCommand ? 1 : 0;
    if (state.totalCalls >= state.nextCallDue || state.totalWrites >= state.nextWriteDue) {
        Faults::runDue(world);
    }
}

}  // namespace

ControllerAnswer call(World& world, const ControllerBlock& in, ControllerBlock& out,
                      bool privileged) {
    count(world, in.command);
    out = {};
    out.key = in.key;
    Call current{world, in, out, privileged};
    dispatch(current);
    std::size_t size = sizeof(ControllerBlock);
    if (const FaultRecord* fault = Faults::strike(world, FaultKind::kOutputSize, in.key)) {
        size = static_cast<std::size_t>(fault->number);
    }
    return {current.code, size};
}

}  // namespace simulator::Controller
