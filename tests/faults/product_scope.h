// Whether a thread is in the code under test, or in the machine and the harness around it.
#pragma once

namespace ferovane::testing {

// Memory runs out in the code under test only.
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

// Where the start of a thread is counted and may fail; throws std::system_error.
void beforeThreadStart();

}  // namespace ferovane::testing
