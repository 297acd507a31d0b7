#include <CoreFoundation/CFArray.h>

#include <algorithm>
#include <vector>

#include "simulator/apple/cf_object.h"

namespace {

using simulator::cf::checked;
using simulator::cf::releaseObject;
using simulator::cf::retainObject;

}  // namespace

const CFArrayCallBacks kCFTypeArrayCallBacks = {0, retainObject, releaseObject, nullptr, CFEqual};

struct __CFArray final : simulator::cf::Object {
    static constexpr simulator::cf::TypeId kTypeId = simulator::cf::kArrayTypeId;
    explicit __CFArray(const CFArrayCallBacks* callBacksOrNull)
        : Object(kTypeId),
          callBacks(callBacksOrNull != nullptr ? *callBacksOrNull : CFArrayCallBacks{}) {}

    void append(const void* value) {
        values.push_back(callBacks.retain != nullptr ? callBacks.retain(nullptr, value) : value);
    }

    bool equals(const Object& other) const override {
        const auto& array = static_cast<const __CFArray&>(other);
        return std::equal(values.begin(), values.end(), array.values.begin(), array.values.end(),
                          [this](const void* first, const void* second) {
                              return first == second || (callBacks.equal != nullptr &&
                                                         callBacks.equal(first, second) != 0);
                          });
    }
    CFHashCode hash() const override { return values.size(); }

    const CFArrayCallBacks callBacks;
    std::vector<const void*> values;

protected:
    void dropContents() override {
        const std::vector<const void*> dropped = std::move(values);
        values.clear();
        if (callBacks.release != nullptr) {
            for (const void* value : dropped) {
                callBacks.release(nullptr, value);
            }
        }
    }
};

CFTypeID CFArrayGetTypeID(void) {
    return __CFArray::kTypeId;
}

CFArrayRef CFArrayCreate(CFAllocatorRef, const void** values, CFIndex count,
                         const CFArrayCallBacks* callBacks) {
    auto* array = simulator::cf::make<__CFArray>(callBacks);
    std::for_each_n(values, count, [array](const void* value) { array->append(value); });
    return array;
}

CFIndex CFArrayGetCount(CFArrayRef array) {
    return static_cast<CFIndex>(checked(array).values.size());
}

const void* CFArrayGetValueAtIndex(CFArrayRef array, CFIndex index) {
    const std::vector<const void*>& values = checked(array).values;
    if (index < 0 || index >= static_cast<CFIndex>(values.size())) {
        simulator::cf::fail("the index is outside the array", __func__);
    }
    return values[static_cast<std::size_t>(index)];
}
