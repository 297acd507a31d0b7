// Memory that runs out in the code under test, and in nothing around it.
#pragma once

#include <atomic>

namespace ferovane::testing {

// The n-th allocation from now fails, alone or with every one after it. Threads take turns, so
// these are plain numbers; atomic, because gtest's may allocate as well.
struct FailingMemory {
    static void failAfter(long successes, bool forGood) {
        remaining = successes;
        lasting = forGood;
        failed = 0;
        armed = true;
    }
    static void relent() { armed = false; }         // everything succeeds again
    static bool hasStruck() { return failed > 0; }  // since failAfter

    static inline std::atomic<bool> armed = false, lasting = false;
    static inline std::atomic<long> remaining = 0, failed = 0;
};

// Whether a thread is in the code under test, or in the machine and the harness around it.
inline constinit thread_local int productDepth = 0;  // 0: outside

// So deep in the code under test for as long as this lives.
template <int depth>
class ProductScope {
public:
    ProductScope() : before_(productDepth) { productDepth = depth; }
    ~ProductScope() { productDepth = before_; }
    ProductScope(const ProductScope&) = delete;
    ProductScope& operator=(const ProductScope&) = delete;

private:
    int before_;
};
using InProduct = ProductScope<1>;
using OutsideProduct = ProductScope<0>;

}  // namespace ferovane::testing
