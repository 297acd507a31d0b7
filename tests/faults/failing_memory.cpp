#include "tests/faults/failing_memory.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace ferovane::testing {

thread_local int productDepth = 0;

namespace {

// Threads take turns, so these are plain numbers; atomic, because gtest's may allocate as well.
std::atomic<bool> armed = false;
std::atomic<bool> lasting = false;
std::atomic<long> remaining = 0;
std::atomic<long> failed = 0;

bool mustFail() {
    if (!armed || productDepth == 0) {
        return false;
    }
    if (remaining-- > 0) {
        return false;
    }
    ++failed;
    armed = lasting.load();
    remaining = 0;
    return true;
}

}  // namespace

void FailingMemory::failAfter(long successes, bool forGood) {
    remaining = successes;
    lasting = forGood;
    failed = 0;
    armed = true;
}

void FailingMemory::relent() {
    armed = false;
}

bool FailingMemory::hasStruck() {
    return failed > 0;
}

}  // namespace ferovane::testing

// Not inlined: a compiler that sees through both would take malloc and delete for a mismatch.
[[gnu::noinline]] void* operator new(std::size_t size) {
    void* memory = ferovane::testing::mustFail() ? nullptr : std::malloc(size > 0 ? size : 1);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
