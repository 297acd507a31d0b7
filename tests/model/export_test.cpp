#include "core/model/export.h"

#include <gtest/gtest.h>

namespace ferovane {
namespace {

constexpr const char* kHeader =
    "timestamp,cpu_percent,cpu_temperature_c,speed_limit_percent,scheduler_limit_percent,"
    "available_cpus,total_cpus,thermal_state,thermal_warning,turbo_driver,ac_power,low_power,"
    "fan0_rpm,fan1_rpm";

TEST(ExportTest, AnEmptyListIsTheHeaderAlone) {
    EXPECT_EQ(Export::csv({}), kHeader);
}

TEST(ExportTest, WritesWhatIsKnownAndLeavesTheRestEmpty) {
    Snapshot first;
    first.date = parseIso8601("2024-05-01T12:30:00Z");
    first.totalCPUs = 8;

    Snapshot full;
    full.date = parseIso8601("1969-12-31T23:59:59Z") + 0.5;
    full.cpuUsage = 12.345;
    full.sensors = {{"TC0P", "甲, 乙", 61.005}, {"TG0D", "", 99}};
    full.fans = {
        {0, 1834.5, {}, {}, {}, true}, {1, {}, {}, {}, {}, true}, {2, 3.0, {}, {}, {}, true}};
    full.speedLimit = 100;
    full.schedulerLimit = 99;
    full.availableCPUs = 4;
    full.totalCPUs = 8;
    full.thermalState = 2;
    full.thermalWarning = -5;
    full.turbo = TurboState::disabledDriverLoaded;
    full.acPower = false;
    full.lowPower = true;

    Snapshot extreme = first;
    extreme.date = parseIso8601("+10000-01-01T00:00:00Z");
    extreme.cpuUsage = -1e300;
    extreme.acPower = true;
    extreme.turbo = TurboState::unsupported;
    extreme.fans = {{0, 0.0, {}, {}, {}, true}, {1, 6000.0, {}, {}, {}, true}};
    std::string huge(1500, '\0');
    huge.resize(static_cast<std::size_t>(std::snprintf(huge.data(), huge.size(), "%.2f", -1e300)));

    EXPECT_EQ(Export::csv(std::vector{first, full, extreme}),
              std::string(kHeader) +
                  "\n2024-05-01T12:30:00Z,,,,,,8,0,,unknown,,0,,"
                  "\n1969-12-31T23:59:59Z,12.35,61.01,100,99,4,8,2,-5,disabledDriverLoaded,0,1,"
                  "1834.50,"
                  "\n+10000-01-01T00:00:00Z," +
                  huge + ",,,,,8,0,,unsupported,1,0,0.00,6000.00");
}

}  // namespace
}  // namespace ferovane
