// How long a wait lasts on a clock that may not be trusted.
#include "helper/condition_lock.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>

namespace ferovane {
namespace {

constexpr double kHour = 3600;
constexpr double kShortly = 0.001;  // seconds of a single real wait
constexpr int kFarTooOften = 50;

// How often a wait of two seconds looks at its predicate, while the clock goes on by half a second
// each time it is read, but for the n-th time.
int looks(int n, const std::function<double(double)>& disturbed) {
    int reads = 0;
    const auto now = [&] {
        const double time = 100 + 0.5 * reads;
        return ++reads == n ? disturbed(time) : time;
    };
    int count = 0;
    ConditionLock lock;
    const ConditionGuard guard(lock);
    lock.waitLocked(2, kShortly, now, [&count] { return ++count == kFarTooOften; });
    return count;
}

TEST(ConditionLockTest, AClockThatCannotBeTrustedEndsAWaitRatherThanProlongingIt) {
    const auto ahead = [](double time) { return time + kHour; };
    const auto back = [](double time) { return time - kHour; };
    const auto noNumber = [](double) { return std::numeric_limits<double>::quiet_NaN(); };
    const int undisturbed = looks(0, nullptr);
    EXPECT_EQ(undisturbed, 6)
        << "before each of four waits, when they are over, and for the answer";
    for (const int n : {1, 2, 4}) {
        EXPECT_LE(looks(n, ahead), undisturbed) << "ahead at reading " << n;
        EXPECT_LE(looks(n, back), undisturbed) << "back at reading " << n;
        EXPECT_LE(looks(n, noNumber), undisturbed) << "no number at reading " << n;
    }
}

}  // namespace
}  // namespace ferovane
