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
using testing::OutsideProduct;

// The last one's first fan stays manual once it is.
enum class Machine { intel, open, locked, refusing, stuck };

int struckAfterATake = 0;

// Whether an allocation failed in a run whose first so many succeed.
bool runWithAllocations(long allocations, bool failForGood, Machine machine, bool cooling) {
    FanWorld world;
    world.recording = false;
    world.locked = machine == Machine::locked || machine == Machine::refusing;
    world.refusalsAfterUnlock = 2;
    if (machine == Machine::refusing) {
        world.unwritable = {"Ftst"};
    }
    AppleSiliconFanControl handOver = world.handOver();
    if (machine != Machine::intel && machine != Machine::stuck) {
        world.switchFan = [&](int fan, bool enabled) { handOver.setManual(fan, enabled); };
    }
    bool taken = false;
    world.befall = [&](const std::string& call) {
        taken = taken || world.fan[0].mode == 1.0;
        if (taken && machine == Machine::stuck && world.unwritable.empty()) {
            const OutsideProduct noneOfThis;
            world.unwritable = {"F0Md"};
        }
        world.snapshot.sensors[0].celsius = world.clock > 1000 ? 65 : 50;
        return call.empty() ? testing::Fault::lost : testing::Fault::none;
    };
    const FanCurve curve = FanCurve::balanced();
    FailingMemory::failAfter(allocations, failForGood);
    bool failed = true;
    try {
        const InProduct allOfThis;
        if (cooling) {
            world.cool(2);
        } else {
            world.follow(curve, 3);
        }
        failed = false;
    } catch (const std::exception&) {
        // Any error will do: what counts is what has become of the fans.
    }
    FailingMemory::relent();
    const bool struck = FailingMemory::failures() > 0;
    const bool isStuck = world.unwritable.count("F0Md") > 0;
    world.fan[0].mode = isStuck ? 0 : world.fan[0].mode;
    EXPECT_TRUE(world.allAutomatic() && (failed || !isStuck))
        << (cooling ? "cooling" : "curve") << (failForGood ? " for good" : " once") << " after "
        << allocations << " on machine " << static_cast<int>(machine);
    struckAfterATake += struck && taken;
    return struck;
}

TEST(LeaseMemoryTest, FansAreHandedBackWhicheverAllocationFails) {
    for (const Machine machine :
         {Machine::intel, Machine::open, Machine::locked, Machine::refusing, Machine::stuck}) {
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

}  // namespace
}  // namespace ferovane
