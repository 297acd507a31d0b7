#include "helper/condition_lock.h"

#include <gtest/gtest.h>

#include <limits>

namespace ferovane {
namespace {

constexpr double kHour = 3600;
constexpr int kFarTooOften = 50;

// How often a wait of two seconds looks at its predicate, on a clock that goes on by half a second
// with each reading, but tells something else once.
int looks(int wrongReading, double wrongBy) {
    int reads = 0, count = 0;
    ConditionLock lock;
    const ConditionGuard guard(lock);
    const auto now = [&] {
        const double time = 100 + 0.5 * reads;
        return ++reads == wrongReading ? time + wrongBy : time;
    };
    lock.waitLocked(2, 0.001, now, [&count] { return ++count == kFarTooOften; });
    return count;
}

TEST(ConditionLockTest, AClockThatCannotBeTrustedEndsAWaitRatherThanProlongingIt) {
    EXPECT_EQ(looks(0, 0), 6) << "before each of four waits, when they are over, for the answer";
    for (const int reading : {1, 2, 4}) {
        for (const double by : {kHour, -kHour, std::numeric_limits<double>::quiet_NaN()}) {
            EXPECT_LE(looks(reading, by), 6) << reading << " " << by;
        }
    }
}

}  // namespace
}  // namespace ferovane
