// Every call of every lease is, in turn, the one at which something goes wrong.
#include <gtest/gtest.h>

#include <exception>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>

#include "tests/fan/lease_world.h"

namespace ferovane {
namespace {

using testing::celsiusFor;
using testing::FakeCoolingHardware;
using testing::FanSwitch;
using testing::LeaseWorld;
using testing::steepCurve;

struct Flow {
    const char* name;
    void (*run)(LeaseWorld&);
};

void followChanges(LeaseWorld& world) {
    world.clock.in(1, [&world] { world.setCelsius(celsiusFor(70)); });
    world.clock.in(2, [&world] { world.setCelsius(celsiusFor(20)); });
    world.follow(steepCurve(), 3);
}

constexpr Flow kFlows[] = {
    {"cooling", [](LeaseWorld& world) { world.cool(2); }},
    {"cooling, cancelled",
     [](LeaseWorld& world) {
         world.clock.in(1, [&world] { world.stopped = true; });
         world.cool(300);
     }},
    {"curve", followChanges},
    {"curve, cancelled",
     [](LeaseWorld& world) {
         world.clock.in(2, [&world] { world.stopped = true; });
         world.follow(steepCurve(), 1800);
     }},
};

struct Fault {
    const char* name;
    void (*strike)(LeaseWorld&, const std::string& call);
    bool refusesToGoOn = false;  // an error that no rule tolerates where a mode key switches fans
};

constexpr Fault kFaults[] = {
    {"refused", [](LeaseWorld&, const std::string& call) { throw ScopeError("拒绝 " + call); }},
    {"unexpected", [](LeaseWorld&, const std::string& call) { throw std::runtime_error(call); },
     true},
    {"garbage", [](LeaseWorld& w, const std::string&) { w.mac.faults.garbage = true; }},
    {"fan not listed", [](LeaseWorld& w, const std::string&) { --w.fans.listed; }},
    {"target moved", [](LeaseWorld& w, const std::string&) { w.mac["F0Tg"] = 2345; }},
    {"taken back", [](LeaseWorld& w, const std::string&) { w.mac["F0Md"] = 0; }},
    {"cancelled", [](LeaseWorld& w, const std::string&) { w.stopped = true; }},
    {"slept", [](LeaseWorld& w, const std::string&) { w.clock.jump(3600); }},
    {"clock set back", [](LeaseWorld& w, const std::string&) { w.clock.jump(-3600); }},
};

// What the user is told; absent when the flow returned.
std::optional<std::string> outcomeOf(const Flow& flow, LeaseWorld& world) {
    try {
        flow.run(world);
        return std::nullopt;
    } catch (const std::exception& error) {
        return describe(error);
    }
}

class LeaseFaultSweepTest : public ::testing::TestWithParam<std::tuple<FanSwitch, int>> {
protected:
    FanSwitch fanSwitch() const { return std::get<0>(GetParam()); }
    int count() const { return std::get<1>(GetParam()); }

    void expectFansAutomaticOrNamed(LeaseWorld& world, const std::string& told) {
        for (int fan = 0; fan < count(); ++fan) {
            EXPECT_TRUE(world.fans.isAutomatic(fan) ||
                        told.find(FakeCoolingHardware::key(fan, "Md")) != std::string::npos)
                << "fan " << fan;
        }
        // A controller stays unlocked only when a hand-back is told to have failed.
        EXPECT_TRUE(world.mac["Ftst"] == 0 || told.find("恢复自动风扇失败") != std::string::npos);
    }

    // A success has read back all it claims.
    void expectSuccessConfirmed(LeaseWorld& world) {
        for (int fan = 0; fan < count(); ++fan) {
            const auto& mode = world.mac.keys[FakeCoolingHardware::key(fan, "Md")];
            EXPECT_TRUE(mode.writes == 0 || mode.learned == 0.0 || mode.learned == 3.0)
                << "fan " << fan;
            // Only the hand-over's own confirmation may overrule a failed write.
            EXPECT_TRUE(fanSwitch() != FanSwitch::intelModeKey || !mode.lastWriteFailed)
                << "fan " << fan;
            EXPECT_FALSE(world.mac.keys[FakeCoolingHardware::key(fan, "Tg")].lastWriteFailed)
                << "fan " << fan;
        }
    }
};

TEST_P(LeaseFaultSweepTest, EveryFanIsGivenBackOrNamed) {
    int cases = 0;
    for (const Flow& flow : kFlows) {
        for (const Fault& fault : kFaults) {
            for (int k = 1;; ++k) {
                LeaseWorld world(count(), fanSwitch());
                std::string struckCall;
                world.mac.faults.strikeAt = k;
                world.mac.faults.strike = [&](const std::string& call) {
                    struckCall = call;
                    fault.strike(world, call);
                };
                const std::optional<std::string> told = outcomeOf(flow, world);
                if (struckCall.empty()) {
                    // The undisturbed run: only a machine that refuses the hand-over fails it.
                    EXPECT_EQ(told.has_value(), fanSwitch() == FanSwitch::refusedHandOver);
                    EXPECT_TRUE(world.fans.allAutomatic());
                    break;
                }
                ++cases;
                SCOPED_TRACE(std::string(flow.name) + ", " + fault.name + " at call " +
                             std::to_string(k) + " (" + struckCall +
                             "), told: " + told.value_or("success"));
                expectFansAutomaticOrNamed(world, told.value_or(""));
                if (!told) {
                    expectSuccessConfirmed(world);
                    EXPECT_FALSE(fault.refusesToGoOn && fanSwitch() == FanSwitch::intelModeKey);
                }
                ASSERT_FALSE(HasFailure());
            }
        }
    }
    RecordProperty("cases", cases);
    EXPECT_GT(cases, 500);  // a sweep that sweeps nothing is no proof
}

std::string nameOf(const ::testing::TestParamInfo<std::tuple<FanSwitch, int>>& machine) {
    constexpr const char* kNames[] = {"IntelModeKey", "OpenHandOver", "LockedHandOver",
                                      "RefusedHandOver"};
    return std::string(kNames[static_cast<int>(std::get<0>(machine.param))]) +
           std::to_string(std::get<1>(machine.param));
}

INSTANTIATE_TEST_SUITE_P(
    EveryMachine, LeaseFaultSweepTest,
    ::testing::Combine(::testing::Values(FanSwitch::intelModeKey, FanSwitch::openHandOver,
                                         FanSwitch::lockedHandOver, FanSwitch::refusedHandOver),
                       ::testing::Values(1, 2, 10)),
    nameOf);

}  // namespace
}  // namespace ferovane
