#include "tests/faults/failing_memory.h"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace ferovane::testing {
namespace {

bool mustFail() {
    using Memory = FailingMemory;
    if (!Memory::armed || productDepth == 0 || Memory::remaining-- > 0) {
        return false;
    }
    ++Memory::failed;
    Memory::armed = Memory::lasting.load();
    Memory::remaining = 0;
    return true;
}

}  // namespace
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
