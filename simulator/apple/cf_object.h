// What every stand-in CoreFoundation object is made of: a type, a reference count, equality.
#pragma once

#include <CoreFoundation/CFBase.h>

#include <atomic>
#include <cstdint>
#include <utility>

namespace simulator::cf {

// Stable for this process only, as on macOS; 0 is no type.
enum TypeId : CFTypeID {
    kStringTypeId = 1,
    kDictionaryTypeId,
    kArrayTypeId,
    kNumberTypeId,
    kBooleanTypeId,
    kDateTypeId,
    kUrlTypeId,
    kBundleTypeId
};

// Says which function was misused and how, and ends the program: on macOS each of these is a crash.
[[noreturn]] void fail(const char* problem, const char* caller);

// Immortal, and not counted among the live objects, until startCounting(). Reference counts may be
// changed on any thread; contents follow the rule of the platform (no writer beside a reader).
class Object {
public:
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;
    constexpr virtual ~Object() = default;

    CFTypeID typeId() const { return typeId_; }
    std::int64_t references() const { return references_.load(std::memory_order_acquire); }
    bool alive() const { return references() > 0; }

    void startCounting();
    void retain(const char* caller) const;
    void release(const char* caller) const;

    // Asked only of two objects of the same type.
    virtual bool equals(const Object& other) const { return this == &other; }
    virtual CFHashCode hash() const;

protected:
    constexpr explicit Object(TypeId typeId) : typeId_(typeId) {}

    // The last reference is gone: give back what is held. The shell stays readable for a while, so
    // that a release too many meets an object and not reused memory.
    virtual void dropContents() {}

private:
    static constexpr std::int64_t kImmortal = INT64_MAX;

    const CFTypeID typeId_;
    mutable std::atomic<std::int64_t> references_{kImmortal};
};

// A new counted object with one reference, owned by the caller.
template <class T, class... Arguments>
T* make(Arguments&&... arguments) {
    T* object = new T(std::forward<Arguments>(arguments)...);
    object->startCounting();
    return object;
}

// What collections of objects call for each of them.
const void* retainObject(CFAllocatorRef, const void* object);
void releaseObject(CFAllocatorRef, const void* object);

// The object behind a reference that must not be null nor released to nothing.
const Object& checkedObject(CFTypeRef reference, const char* caller);
void checkType(const Object& object, CFTypeID wanted, const char* caller);

// The same, of the type that the called function is for.
template <class T>
T& checked(T* reference, const char* caller = __builtin_FUNCTION()) {
    checkType(checkedObject(reference, caller), T::kTypeId, caller);
    return *reference;
}

}  // namespace simulator::cf
