#include <CoreFoundation/CFNumber.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <optional>
#include <variant>

#include "simulator/apple/cf_object.h"

namespace {

using simulator::cf::checked;
using Value = std::variant<std::int64_t, double>;

template <class T>
T load(const void* source) {
    T value{};
    std::memcpy(&value, source, sizeof value);
    return value;
}

// The whole number that a double is, nothing when it is none or lies outside 64 bits.
std::optional<std::int64_t> wholeNumber(double value) {
    constexpr double kLimit = 9223372036854775808.0;  // 2 to the power 63
    if (!(value >= -kLimit && value < kLimit) || std::trunc(value) != value) {
        return std::nullopt;
    }
    return static_cast<std::int64_t>(value);
}

// A double cut to the integers of T: towards zero, to the nearer limit outside, NaN to 0.
template <class T>
T truncated(double value) {
    if (std::isnan(value)) {
        return 0;
    }
    // The lower limit is a power of two and exact; the upper one rounds up to the next.
    const double lowest = static_cast<double>(std::numeric_limits<T>::min());
    if (value < lowest) {
        return std::numeric_limits<T>::min();
    }
    return value >= -lowest ? std::numeric_limits<T>::max() : static_cast<T>(value);
}

template <class T>
bool storeInteger(const Value& value, void* target) {
    T result{};
    bool exact = false;
    if (const auto* integer = std::get_if<std::int64_t>(&value)) {
        result = static_cast<T>(*integer);
        exact = result == *integer;
    } else {
        const double number = std::get<double>(value);
        result = truncated<T>(number);
        exact = wholeNumber(number) == static_cast<std::int64_t>(result);
    }
    std::memcpy(target, &result, sizeof result);
    return exact;
}

bool storeDouble(const Value& value, void* target) {
    const auto* integer = std::get_if<std::int64_t>(&value);
    const double result =
        integer != nullptr ? static_cast<double>(*integer) : std::get<double>(value);
    std::memcpy(target, &result, sizeof result);
    return integer == nullptr || wholeNumber(result) == *integer;
}

}  // namespace

struct __CFBoolean final : simulator::cf::Object {
    static constexpr simulator::cf::TypeId kTypeId = simulator::cf::kBooleanTypeId;
    constexpr explicit __CFBoolean(bool truth) : Object(kTypeId), value(truth) {}
    const bool value;
};

struct __CFNumber final : simulator::cf::Object {
    static constexpr simulator::cf::TypeId kTypeId = simulator::cf::kNumberTypeId;
    explicit __CFNumber(Value stored) : Object(kTypeId), value(stored) {}

    // By value, whatever the types: 5 equals 5.0.
    bool equals(const Object& other) const override {
        const auto& number = static_cast<const __CFNumber&>(other);
        const std::optional<std::int64_t> mine = integer();
        const std::optional<std::int64_t> theirs = number.integer();
        if (mine || theirs) {
            return mine == theirs;
        }
        const double first = std::get<double>(value);
        const double second = std::get<double>(number.value);
        return first == second || (std::isnan(first) && std::isnan(second));
    }

    CFHashCode hash() const override {
        const std::optional<std::int64_t> whole = integer();
        return whole ? std::hash<std::int64_t>{}(*whole)
                     : std::hash<double>{}(std::get<double>(value));
    }

    std::optional<std::int64_t> integer() const {
        const auto* stored = std::get_if<std::int64_t>(&value);
        return stored != nullptr ? *stored : wholeNumber(std::get<double>(value));
    }

    const Value value;
};

namespace {

// Constant-initialised and never destroyed, so that any static object may use the booleans.
union ImmortalBoolean {
    constexpr explicit ImmortalBoolean(bool truth) : object(truth) {}
    constexpr ~ImmortalBoolean() {}
    __CFBoolean object;
};
constinit ImmortalBoolean trueObject(true);
constinit ImmortalBoolean falseObject(false);

std::optional<Value> loadValue(CFNumberType type, const void* source) {
    switch (type) {
        case kCFNumberSInt32Type:
            return load<std::int32_t>(source);
        case kCFNumberSInt64Type:
            return load<std::int64_t>(source);
        case kCFNumberFloat64Type:
            return load<double>(source);
        default:
            return std::nullopt;
    }
}

}  // namespace

const CFBooleanRef kCFBooleanTrue = &trueObject.object;
const CFBooleanRef kCFBooleanFalse = &falseObject.object;

CFTypeID CFBooleanGetTypeID(void) {
    return __CFBoolean::kTypeId;
}

Boolean CFBooleanGetValue(CFBooleanRef boolean) {
    return checked(boolean).value;
}

CFTypeID CFNumberGetTypeID(void) {
    return __CFNumber::kTypeId;
}

CFNumberRef CFNumberCreate(CFAllocatorRef, CFNumberType type, const void* value) {
    const std::optional<Value> loaded = value != nullptr ? loadValue(type, value) : std::nullopt;
    if (!loaded) {
        simulator::cf::fail("no value, or a number type that is not there", __func__);
    }
    return simulator::cf::make<__CFNumber>(*loaded);
}

Boolean CFNumberGetValue(CFNumberRef number, CFNumberType type, void* value) {
    const Value& stored = checked(number).value;
    switch (type) {
        case kCFNumberSInt32Type:
            return storeInteger<std::int32_t>(stored, value);
        case kCFNumberSInt64Type:
            return storeInteger<std::int64_t>(stored, value);
        case kCFNumberFloat64Type:
            return storeDouble(stored, value);
        default:
            simulator::cf::fail("a number type that is not there", __func__);
    }
}
