#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>

#include "simulator/apple/cf_object.h"
#include "simulator/apple/live_objects.h"

const CFAllocatorRef kCFAllocatorDefault = nullptr;

namespace {

using simulator::cf::Object;

// Dead shells kept readable; a release too many usually follows the last one closely.
constexpr std::size_t kShellsKept = 128;

std::atomic<std::int64_t> liveCount{0};

void keepShell(const Object* object) {
    static std::mutex mutex;
    static std::size_t next = 0;
    // Never destroyed: static objects of other files may still release theirs.
    static auto& shells = *new std::array<std::unique_ptr<const Object>, kShellsKept>;
    std::unique_ptr<const Object> oldest(object);  // destroyed outside the lock
    const std::lock_guard lock(mutex);
    shells[next].swap(oldest);
    next = (next + 1) % kShellsKept;
}

}  // namespace

namespace simulator {

std::int64_t liveObjects() {
    return liveCount.load();
}

namespace cf {

void fail(const char* problem, const char* caller) {
    std::fprintf(stderr, "CoreFoundation: %s: %s\n", caller, problem);
    std::abort();
}

void Object::startCounting() {
    references_.store(1);
    liveCount.fetch_add(1);
}

void Object::retain(const char* caller) const {
    if (references() == kImmortal) {
        return;
    }
    if (references_.fetch_add(1, std::memory_order_relaxed) < 1) {
        fail("the object was released to nothing before", caller);
    }
}

void Object::release(const char* caller) const {
    if (references() == kImmortal) {
        return;
    }
    const std::int64_t before = references_.fetch_sub(1, std::memory_order_acq_rel);
    if (before < 1) {
        fail("the object was released more often than it was created and retained", caller);
    }
    if (before == 1) {
        liveCount.fetch_sub(1);
        const_cast<Object*>(this)->dropContents();
        keepShell(this);
    }
}

CFHashCode Object::hash() const {
    return std::hash<const Object*>{}(this);
}

const void* retainObject(CFAllocatorRef, const void* object) {
    return CFRetain(object);
}

void releaseObject(CFAllocatorRef, const void* object) {
    CFRelease(object);
}

const Object& checkedObject(CFTypeRef reference, const char* caller) {
    if (reference == nullptr) {
        fail("null is not an object", caller);
    }
    const auto& object = *static_cast<const Object*>(reference);
    if (!object.alive()) {
        fail("the object was released to nothing before", caller);
    }
    return object;
}

void checkType(const Object& object, CFTypeID wanted, const char* caller) {
    if (object.typeId() != wanted) {
        fail("the object is of another type", caller);
    }
}

}  // namespace cf
}  // namespace simulator

using simulator::cf::checkedObject;

CFTypeID CFGetTypeID(CFTypeRef object) {
    return checkedObject(object, __func__).typeId();
}

CFTypeRef CFRetain(CFTypeRef object) {
    checkedObject(object, __func__).retain(__func__);
    return object;
}

void CFRelease(CFTypeRef object) {
    if (object == nullptr) {
        simulator::cf::fail("null is not an object", __func__);
    }
    static_cast<const Object*>(object)->release(__func__);
}

CFIndex CFGetRetainCount(CFTypeRef object) {
    return checkedObject(object, __func__).references();
}

Boolean CFEqual(CFTypeRef first, CFTypeRef second) {
    const Object& a = checkedObject(first, __func__);
    const Object& b = checkedObject(second, __func__);
    return &a == &b || (a.typeId() == b.typeId() && a.equals(b));
}

CFHashCode CFHash(CFTypeRef object) {
    return checkedObject(object, __func__).hash();
}
