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

// The type of fixed width that a named type stands for.
CFNumberType fixedWidth(CFNumberType type) {
    switch (type) {
        case kCFNumberCharType:
            return kCFNumberSInt8Type;
        case kCFNumberShortType:
            return kCFNumberSInt16Type;
        case kCFNumberIntType:
            return kCFNumberSInt32Type;
        case kCFNumberLongType:
        case kCFNumberLongLongType:
        case kCFNumberCFIndexType:
        case kCFNumberNSIntegerType:
            return kCFNumberSInt64Type;
        case kCFNumberFloatType:
            return kCFNumberFloat32Type;
        case kCFNumberDoubleType:
        case kCFNumberCGFloatType:
            return kCFNumberFloat64Type;
        default:
            return type;
    }
}

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

template <class T>
bool storeFloat(const Value& value, void* target) {
    T result{};
    bool exact = false;
    if (const auto* integer = std::get_if<std::int64_t>(&value)) {
        result = static_cast<T>(*integer);
        exact = wholeNumber(static_cast<double>(result)) == *integer;
    } else {
        const double number = std::get<double>(value);
        result = static_cast<T>(number);
        exact = std::isnan(number) || static_cast<double>(result) == number;
    }
    std::memcpy(target, &result, sizeof result);
    return exact;
}

}  // namespace

struct __CFBoolean final : simulator::cf::Object {
    static constexpr simulator::cf::TypeId kTypeId = simulator::cf::kBooleanTypeId;
    constexpr explicit __CFBoolean(bool truth) : Object(kTypeId), value(truth) {}
    const bool value;
};

struct __CFNumber final : simulator::cf::Object {
    static constexpr simulator::cf::TypeId kTypeId = simulator::cf::kNumberTypeId;
    __CFNumber(CFNumberType fixedType, Value stored)
        : Object(kTypeId), type(fixedType), value(stored) {}

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

    const CFNumberType type;
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
        case kCFNumberSInt8Type:
            return load<std::int8_t>(source);
        case kCFNumberSInt16Type:
            return load<std::int16_t>(source);
        case kCFNumberSInt32Type:
            return load<std::int32_t>(source);
        case kCFNumberSInt64Type:
            return load<std::int64_t>(source);
        case kCFNumberFloat32Type:
            return static_cast<double>(load<float>(source));
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
    const CFNumberType fixedType = fixedWidth(type);
    const std::optional<Value> loaded =
        value != nullptr ? loadValue(fixedType, value) : std::nullopt;
    if (!loaded) {
        simulator::cf::fail("no value, or no such number type", __func__);
    }
    return simulator::cf::make<__CFNumber>(fixedType, *loaded);
}

CFNumberType CFNumberGetType(CFNumberRef number) {
    return checked(number).type;
}

Boolean CFNumberIsFloatType(CFNumberRef number) {
    return std::holds_alternative<double>(checked(number).value);
}

Boolean CFNumberGetValue(CFNumberRef number, CFNumberType type, void* value) {
    const Value& stored = checked(number).value;
    switch (fixedWidth(type)) {
        case kCFNumberSInt8Type:
            return storeInteger<std::int8_t>(stored, value);
        case kCFNumberSInt16Type:
            return storeInteger<std::int16_t>(stored, value);
        case kCFNumberSInt32Type:
            return storeInteger<std::int32_t>(stored, value);
        case kCFNumberSInt64Type:
            return storeInteger<std::int64_t>(stored, value);
        case kCFNumberFloat32Type:
            return storeFloat<float>(stored, value);
        case kCFNumberFloat64Type:
            return storeFloat<double>(stored, value);
        default:
            simulator::cf::fail("no such number type", __func__);
    }
}
