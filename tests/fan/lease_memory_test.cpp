// Fans are handed back without memory: every allocation of every lease is, in turn, the first that
// fails, once or for good.
#include <gtest/gtest.h>

#include "tests/fan/lease_world.h"
#include "tests/faults/failing_memory.h"
#include "tests/faults/product_scope.h"

namespace ferovane {
namespace {

using testing::celsiusFor;
using testing::FailingMemory;
using testing::FanSwitch;
using testing::InProduct;
using testing::LeaseWorld;
using testing::steepCurve;

int struckAfterATake = 0;

// Whether an allocation failed in a run whose first so many succeed.
bool runWithAllocations(long allocations, bool failForGood, FanSwitch fanSwitch, bool cooling) {
    LeaseWorld world(2, fanSwitch);
    const FanCurve curve = steepCurve();
    world.clock.in(1, [&] { world.setCelsius(celsiusFor(70)); });
    FailingMemory::failAfter(allocations, failForGood);
    try {
        const InProduct allOfThis;
        if (cooling) {
            world.cool(2);
        } else {
            world.follow(curve, 3);
        }
    } catch (const std::exception&) {
        // Any error will do: what counts is what has become of the fans.
    }
    FailingMemory::relent();
    const bool struck = FailingMemory::failures() > 0;
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
    bool struck = true;
    for (long allocations = 0; struck; ++allocations) {
        LeaseWorld world(3);
        for (const char* key : {"F0Md", "F1Md", "F2Md"}) {
            world.mac[key] = 1;
        }
        world.mac.keys["F0Md"].unwritable = world.mac.keys["F1Md"].unwritable = true;
        const std::vector<int> ids{0, 1, 2};
        bool failed = false;
        FailingMemory::failAfter(allocations, true);
        try {
            const InProduct allOfThis;
            CoolingLease::restoreAuto(ids, world.fans);
        } catch (const std::exception&) {
            failed = true;
        }
        FailingMemory::relent();
        struck = FailingMemory::failures() > 0;
        EXPECT_TRUE(failed) << allocations;
        EXPECT_TRUE(world.fans.isAutomatic(2)) << allocations;
    }
}

}  // namespace
}  // namespace ferovane
