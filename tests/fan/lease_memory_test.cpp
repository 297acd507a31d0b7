// Fans are handed back without memory: every allocation of every lease is, in turn, the first that
// fails, once or for good.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <new>

#include "tests/fan/lease_world.h"

namespace {

bool armed = false;    // whether allocations are counted down
bool forGood = false;  // whether every further one fails too
bool struck = false;   // whether one has failed
long remaining = 0;    // how many still succeed

bool mustFail() {
    if (!armed || remaining-- > 0) {
        return false;
    }
    struck = true;
    armed = forGood;
    remaining = 0;
    return true;
}

}  // namespace

// Not inlined: a compiler that sees through both would take malloc and delete for a mismatch.
[[gnu::noinline]] void* operator new(std::size_t size) {
    void* memory = mustFail() ? nullptr : std::malloc(size > 0 ? size : 1);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace ferovane {
namespace {

using testing::celsiusFor;
using testing::FanSwitch;
using testing::LeaseWorld;
using testing::steepCurve;

int struckAfterATake = 0;

// Whether an allocation failed in a run whose first so many succeed.
bool runWithAllocations(long allocations, bool failForGood, FanSwitch fanSwitch, bool cooling) {
    LeaseWorld world(2, fanSwitch);
    const FanCurve curve = steepCurve();
    world.clock.in(1, [&] { world.setCelsius(celsiusFor(70)); });
    struck = false;
    forGood = failForGood;
    remaining = allocations;
    armed = true;
    try {
        if (cooling) {
            world.cool(2);
        } else {
            world.follow(curve, 3);
        }
    } catch (const std::exception&) {
        // Any error will do: what counts is what has become of the fans.
    }
    armed = false;
    EXPECT_TRUE(world.fans.allAutomatic())
        << (cooling ? "cooling" : "curve") << (failForGood ? " for good" : " once") << " after "
        << allocations << " on machine " << static_cast<int>(fanSwitch);
    struckAfterATake += struck && world.mac.journal().find("Md=1") != std::string::npos;
    return struck;
}

TEST(LeaseMemoryTest, FansAreHandedBackWhicheverAllocationFails) {
    for (const FanSwitch fanSwitch : {FanSwitch::intelModeKey, FanSwitch::openHandOver,
                                      FanSwitch::lockedHandOver, FanSwitch::refusedHandOver}) {
        for (const bool cooling : {true, false}) {
            for (const bool failForGood : {true, false}) {
                long allocations = 0;
                while (runWithAllocations(allocations, failForGood, fanSwitch, cooling)) {
                    ++allocations;
                }
            }
        }
    }
    EXPECT_GT(struckAfterATake, 30);  // else the runs were not worth their name
}

TEST(LeaseMemoryTest, AFanThatFailsCostsNoOtherItsHandBack) {
    for (long allocations = 0; allocations == 0 || struck; ++allocations) {
        LeaseWorld world(3);
        for (const char* key : {"F0Md", "F1Md", "F2Md"}) {
            world.mac[key] = 1;
        }
        world.mac.keys["F0Md"].unwritable = world.mac.keys["F1Md"].unwritable = true;
        const std::vector<int> ids{0, 1, 2};
        struck = false;
        forGood = true;
        remaining = allocations;
        bool failed = false;
        armed = true;
        try {
            CoolingLease::restoreAuto(ids, world.fans);
        } catch (const std::exception&) {
            failed = true;
        }
        armed = false;
        EXPECT_TRUE(failed) << allocations;
        EXPECT_TRUE(world.fans.isAutomatic(2)) << allocations;
    }
}

}  // namespace
}  // namespace ferovane
