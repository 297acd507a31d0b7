// Fans are handed back without memory: every allocation of every lease is, in turn, the first that
// fails, once or for good.
#include <gtest/gtest.h>

#include "tests/faults/failing_memory.h"
#include "tests/faults/product_scope.h"
#include "tests/support/fan_world.h"

namespace ferovane {
namespace {

using testing::FailingMemory;
using testing::FanWorld;
using testing::InProduct;

enum class Machine { intel, open, locked, refusing };

int struckAfterATake = 0;

// Whether an allocation failed in a run whose first so many succeed.
bool runWithAllocations(long allocations, bool failForGood, Machine machine, bool cooling) {
    FanWorld world;
    world.recording = false;
    world.locked = machine >= Machine::locked;
    world.refusalsAfterUnlock = 2;
    world.unlockUnwritable = machine == Machine::refusing;
    AppleSiliconFanControl handOver = world.handOver();
    if (machine != Machine::intel) {
        world.switchFan = [&](int fan, bool enabled) { handOver.setManual(fan, enabled); };
    }
    bool taken = false;
    world.befall = [&](const std::string& call) {
        taken = taken || world.fan[0].mode == 1.0;
        world.snapshot.sensors[0].celsius = world.clock > 1000 ? 65 : 50;
        return call.empty() ? testing::Fault::lost : testing::Fault::none;
    };
    const FanCurve curve = FanCurve::balanced();
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
    EXPECT_TRUE(world.allAutomatic())
        << (cooling ? "cooling" : "curve") << (failForGood ? " for good" : " once") << " after "
        << allocations << " on machine " << static_cast<int>(machine);
    struckAfterATake += struck && taken;
    return struck;
}

TEST(LeaseMemoryTest, FansAreHandedBackWhicheverAllocationFails) {
    for (const Machine machine :
         {Machine::intel, Machine::open, Machine::locked, Machine::refusing}) {
        for (const bool cooling : {true, false}) {
            for (const bool failForGood : {true, false}) {
                long allocations = 0;
                while (runWithAllocations(allocations, failForGood, machine, cooling)) {
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
        FanWorld world(3);
        world.recording = false;
        for (auto& fan : world.fan) {
            fan.mode = 1;
        }
        world.fan[0].modeUnwritable = world.fan[1].modeUnwritable = true;
        const std::vector<int> ids{0, 1, 2};
        bool failed = false;
        FailingMemory::failAfter(allocations, true);
        try {
            const InProduct allOfThis;
            CoolingLease::restoreAuto(ids, world);
        } catch (const std::exception&) {
            failed = true;
        }
        FailingMemory::relent();
        struck = FailingMemory::failures() > 0;
        EXPECT_TRUE(failed) << allocations;
        EXPECT_EQ(world.fan[2].mode, 0.0) << allocations;
    }
}

}  // namespace
}  // namespace ferovane
