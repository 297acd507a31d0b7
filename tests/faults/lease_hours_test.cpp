// Many leases one after the other, and what must hold after each.
#include "tests/faults/lease_hours.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

namespace ferovane::testing {
namespace {

constexpr double kEverydayHours = FEROVANE_EVERYDAY_LEASE_HOURS;
constexpr std::uint64_t kEverydaySeed = 1;
constexpr std::size_t kManyRuns = 200;

std::string variable(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}
double hours() {
    const std::string text = variable("FEROVANE_LEASE_HOURS");
    return text.empty() ? kEverydayHours : std::stod(text);
}
std::uint64_t seed() {
    const std::string text = variable("FEROVANE_LEASE_SEED");
    return text.empty() ? kEverydaySeed : std::stoull(text);
}

TEST(LeaseHoursTest, EveryLeaseHandsItsFansBackOrTellsWhichNot) {
    const std::string path = variable("FEROVANE_LEASE_JOURNAL");
    std::ofstream file;
    if (!path.empty()) {
        file.open(path);
        ASSERT_TRUE(file) << path;
    }
    const LeaseHours done = simulateLeaseHours(hours(), seed(), path.empty() ? nullptr : &file);
    done.print(seed());
    for (const std::string& complaint : done.complaints) {
        ADD_FAILURE() << complaint;
    }
    // A simulation in which nothing happens would prove nothing.
    EXPECT_GE(done.seconds, hours() * 3600);
    if (done.runs >= kManyRuns) {
        EXPECT_GT(done.leases, done.runs / 2);
        EXPECT_GT(done.whole, done.runs / 3);
        EXPECT_GT(done.told, 0U);
    }
}

TEST(LeaseHoursTest, TheSameSeedGivesTheSameJournal) {
    constexpr double kFewHours = 5;
    const LeaseHours first = simulateLeaseHours(kFewHours, seed());
    const LeaseHours again = simulateLeaseHours(kFewHours, seed());
    const LeaseHours other = simulateLeaseHours(kFewHours, seed() + 1);
    EXPECT_EQ(first.bytes, again.bytes);
    EXPECT_EQ(first.sum, again.sum);
    EXPECT_NE(first.sum, other.sum);
}

}  // namespace
}  // namespace ferovane::testing
