// Memory that runs out in the code under test, and in nothing around it.
#pragma once

namespace ferovane::testing {

// The n-th allocation from now fails, alone or with every one after it.
class FailingMemory {
public:
    static void failAfter(long successes, bool forGood);
    static void relent();     // everything succeeds again
    static bool hasStruck();  // since failAfter
};

// Whether a thread is in the code under test, or in the machine and the harness around it.
extern thread_local int productDepth;  // 0: outside

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
