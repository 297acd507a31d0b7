// A lock with a condition, as Clang's thread-safety analysis understands it.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

#if defined(__clang__)
#define FV_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define FV_THREAD_ATTRIBUTE(x)
#endif

#define FV_CAPABILITY(name) FV_THREAD_ATTRIBUTE(capability(name))
#define FV_SCOPED_CAPABILITY FV_THREAD_ATTRIBUTE(scoped_lockable)
#define FV_GUARDED_BY(mutex) FV_THREAD_ATTRIBUTE(guarded_by(mutex))
#define FV_REQUIRES(mutex) FV_THREAD_ATTRIBUTE(requires_capability(mutex))
#define FV_EXCLUDES(mutex) FV_THREAD_ATTRIBUTE(locks_excluded(mutex))
#define FV_ACQUIRE(...) FV_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define FV_RELEASE(...) FV_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define FV_UNCHECKED FV_THREAD_ATTRIBUTE(no_thread_safety_analysis)

namespace ferovane {

// A lock with the condition that its holders wait for.
class FV_CAPABILITY("mutex") ConditionLock {
public:
    void lock() FV_ACQUIRE() { mutex_.lock(); }
    void unlock() FV_RELEASE() { mutex_.unlock(); }
    void broadcast() { condition_.notify_all(); }

    // Waits until `isTrue` or until `seconds` have passed on the clock `now`, and returns what
    // `isTrue` then says. No single wait is longer than `longestWait` seconds: the system's timed
    // waits follow the wall clock, which may be set back meanwhile. A clock `now` that cannot be
    // trusted ends the wait rather than prolonging it.
    template <class Predicate>
    bool waitLocked(double seconds, double longestWait, const std::function<double()>& now,
                    Predicate isTrue) FV_REQUIRES(this) FV_UNCHECKED {
        const double start = now();
        for (double left = seconds; !isTrue() && left > 0;) {
            condition_.wait_for(mutex_, std::chrono::duration<double>(std::min(left, longestWait)));
            const double passed = now() - start;
            left = passed >= 0 ? seconds - passed : 0;
        }
        return isTrue();
    }

private:
    std::mutex mutex_;
    std::condition_variable_any condition_;
};

// Holds the lock for a scope.
class FV_SCOPED_CAPABILITY ConditionGuard {
public:
    explicit ConditionGuard(ConditionLock& lock) FV_ACQUIRE(lock) : lock_(lock) { lock_.lock(); }
    ~ConditionGuard() FV_RELEASE() { lock_.unlock(); }
    ConditionGuard(const ConditionGuard&) = delete;
    ConditionGuard& operator=(const ConditionGuard&) = delete;

private:
    ConditionLock& lock_;
};

}  // namespace ferovane
