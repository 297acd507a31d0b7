#include <CoreFoundation/CFDate.h>

#include <functional>

#include "simulator/apple/cf_object.h"

struct __CFDate final : simulator::cf::Object {
    static constexpr simulator::cf::TypeId kTypeId = simulator::cf::kDateTypeId;
    explicit __CFDate(CFAbsoluteTime time) : Object(kTypeId), at(time) {}

    bool equals(const Object& other) const override {
        return at == static_cast<const __CFDate&>(other).at;
    }
    CFHashCode hash() const override { return std::hash<double>{}(at); }

    const CFAbsoluteTime at;
};

CFTypeID CFDateGetTypeID(void) {
    return __CFDate::kTypeId;
}

CFDateRef CFDateCreate(CFAllocatorRef, CFAbsoluteTime at) {
    return simulator::cf::make<__CFDate>(at);
}

CFAbsoluteTime CFDateGetAbsoluteTime(CFDateRef date) {
    return simulator::cf::checked(date).at;
}
