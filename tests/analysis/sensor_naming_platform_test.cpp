#include "core/analysis/sensor_naming_platform.h"

#include <gtest/gtest.h>

#include "simulator/machine/simulated_mac.h"

namespace ferovane {
namespace {

using Platform = SensorNamingPlatform;

TEST(SensorNamingPlatformTest, KnowsExactlyThreeBrands) {
    const struct {
        const char* brand;
        Platform platform;
    } cases[] = {
        {"Apple M4", Platform::appleM4},
        {"Apple M4 Pro", Platform::appleM4ProMax},
        {"Apple M4 Max", Platform::appleM4ProMax},
        {" Apple M4 Pro\n", Platform::appleM4ProMax},
        {"\t\r\nApple M4 ", Platform::appleM4},
        {"apple m4", Platform::generic},
        {"Apple M4 pro", Platform::generic},
        {"Apple M4 Ultra", Platform::generic},
        {"Apple  M4", Platform::generic},
        {"Apple M40", Platform::generic},
        {"Apple M3 Max", Platform::generic},
        {"Intel(R) Core(TM) i9-9980HK CPU @ 2.40GHz", Platform::generic},
        {" \n", Platform::generic},
        {"", Platform::generic},
    };
    for (const auto& [brand, platform] : cases) {
        EXPECT_EQ(detectNamingPlatform(brand), platform) << '"' << brand << '"';
    }
}

TEST(SensorNamingPlatformTest, AsksTheMachineOnce) {
    auto mac = simulator::appleSiliconMac(1);
    mac.setCpuBrand("Apple M4 Max");
    {
        const auto attached = mac.attach();
        ASSERT_EQ(currentNamingPlatform(), Platform::appleM4ProMax);
    }
    EXPECT_EQ(currentNamingPlatform(), Platform::appleM4ProMax);
}

}  // namespace
}  // namespace ferovane
