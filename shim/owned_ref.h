// Owns one reference to a CoreFoundation object.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <utility>

namespace ferovane::shim {

// Takes over what a Copy or Create call returned, null included, and releases it once.
template <class Ref>
class OwnedRef {
public:
    OwnedRef() = default;
    explicit OwnedRef(Ref reference) : reference_(reference) {}
    OwnedRef(OwnedRef&& other) noexcept : reference_(std::exchange(other.reference_, nullptr)) {}
    OwnedRef& operator=(OwnedRef&& other) noexcept {
        std::swap(reference_, other.reference_);
        return *this;
    }
    ~OwnedRef() {
        if (reference_ != nullptr) {  // releasing null ends the process
            CFRelease(reference_);
        }
    }

    Ref get() const { return reference_; }
    explicit operator bool() const { return reference_ != nullptr; }

    // Where a Copy call that answers through a pointer puts its result. Only for an object that
    // owns nothing yet; stays null when the call writes nothing.
    Ref* receive() { return &reference_; }

private:
    Ref reference_ = nullptr;
};

}  // namespace ferovane::shim
