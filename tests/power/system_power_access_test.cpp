// What power logic is told of a machine, and that the driver's state is the machine's own.
#include "helper/system_power_access.h"

#include <gtest/gtest.h>

#include <optional>

#include "simulator/machine/simulated_mac.h"

namespace ferovane {
namespace {

using simulator::Property;

struct NobodysKeeper : ToolKeeper {
    void toolStarted(pid_t) override {}
    void toolEnded() noexcept override {}
};

TEST(SystemPowerAccessTest, TellsSourceAndDriverOnlyWhenTheyAreKnown) {
    auto mac = simulator::intelMac(2);
    const auto attached = mac.attach();
    NobodysKeeper keeper;
    SystemPowerAccess access{keeper};
    mac.set(Property::kAcPower, 1);
    EXPECT_EQ(access.currentSource(), PowerSource::ac);
    mac.set(Property::kAcPower, 0);
    EXPECT_EQ(access.currentSource(), PowerSource::battery);
    mac.setAbsent(Property::kAcPower);
    EXPECT_EQ(access.currentSource(), std::nullopt);
    for (const int loaded : {0, 1}) {
        mac.set(Property::kExtensionLoaded, loaded);
        EXPECT_EQ(access.turboState(), loaded);
    }
    mac.set(Property::kExtensionAnswers, 0);
    EXPECT_EQ(access.turboState(), std::nullopt);
}

}  // namespace
}  // namespace ferovane
