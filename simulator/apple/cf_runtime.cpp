#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

#include "simulator/apple/cf_object.h"
#include "simulator/apple/live_objects.h"

const CFAllocatorRef kCFAllocatorDefault = nullptr;

namespace {

using simulator::cf::Object;

// Dead shells kept readable; a release too many usually follows the last one closely.
constexpr std::size_t kShellsKept = 1024;

std::atomic<std::int64_t> liveCount{0};

void keepShell(const Object* object) {
    static std::mutex mutex;
    // Never destroyed: static objects of other files may still release theirs.
    static auto& shells = *new std::deque<std::unique_ptr<const Object>>;
    std::unique_ptr<const Object> oldest;
    const std::lock_guard lock(mutex);
    shells.emplace_back(object);
    if (shells.size() > kShellsKept) {
        oldest = std::move(shells.front());
        shells.pop_front();
    }
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
