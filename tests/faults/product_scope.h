// Whether a thread is in the code under test, or in the machine and the harness around it.
#pragma once

namespace ferovane::testing {

// Memory runs out in the code under test only.
extern thread_local int productDepth;  // 0: outside

class InProduct {
public:
    InProduct() : before_(productDepth) { productDepth = 1; }
    ~InProduct() { productDepth = before_; }
    InProduct(const InProduct&) = delete;
    InProduct& operator=(const InProduct&) = delete;

private:
    int before_;
};

class OutsideProduct {
public:
    OutsideProduct() : before_(productDepth) { productDepth = 0; }
    ~OutsideProduct() { productDepth = before_; }
    OutsideProduct(const OutsideProduct&) = delete;
    OutsideProduct& operator=(const OutsideProduct&) = delete;

private:
    int before_;
};

// Where the start of a thread is counted and may fail; throws std::system_error.
void beforeThreadStart();

}  // namespace ferovane::testing
