#include "core/model/export.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <span>
#include <string>
#include <string_view>

#include "core/model/json_codec.h"
#include "core/model/number_text.h"

namespace ferovane {
namespace {

constexpr const char* kHeader =
    "timestamp,cpu_percent,cpu_temperature_c,speed_limit_percent,scheduler_limit_percent,"
    "available_cpus,total_cpus,thermal_state,thermal_warning,turbo_driver,ac_power,low_power,"
    "fan0_rpm,fan1_rpm";

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

    EXPECT_EQ(Export::csv({}), kHeader);
    Snapshot odd = first;  // what is no number is left out
    odd.cpuUsage = std::nan("");
    odd.sensors = {{"TC0P", "", std::numeric_limits<double>::infinity()}};
    odd.fans = {{0, -std::numeric_limits<double>::infinity(), {}, {}, {}, true}};
    EXPECT_EQ(Export::csv(std::vector{odd}), Export::csv(std::vector{first}));
    EXPECT_EQ(Export::csv(std::vector{first, full, extreme}),
              std::string(kHeader) +
                  "\n2024-05-01T12:30:00Z,,,,,,8,0,,unknown,,0,,"
                  "\n1969-12-31T23:59:59Z,12.35,61.01,100,99,4,8,2,-5,disabledDriverLoaded,0,1,"
                  "1834.50,"
                  "\n+10000-01-01T00:00:00Z," +
                  huge + ",,,,,8,0,,unsupported,1,0,0.00,6000.00");
}

// Where printf writes a comma into numbers.
class CommaLocale {
public:
    CommaLocale() {
        for (const char* name : {"de_DE.UTF-8", "de_DE.utf8", "de_DE", "fr_FR.UTF-8"}) {
            if (std::setlocale(LC_ALL, name) != nullptr) {
                return;
            }
        }
        makeOne();
    }
    ~CommaLocale() {
        std::setlocale(LC_ALL, "C");
        if (!directory_.empty()) {
            unsetenv("LOCPATH");
            std::filesystem::remove_all(directory_);
        }
    }
    CommaLocale(const CommaLocale&) = delete;
    CommaLocale& operator=(const CommaLocale&) = delete;

    static bool isSet() { return std::string_view(std::localeconv()->decimal_point) == ","; }

private:
    // Few machines that build have any locale installed, but many can compile one.
    void makeOne() {
        std::string name = std::filesystem::temp_directory_path() / "ferovane-locale-XXXXXX";
        if (mkdtemp(name.data()) == nullptr) {
            return;
        }
        directory_ = name;
        const std::string compile =
            "localedef --no-archive -i de_DE -f UTF-8 " + name + "/de_DE.UTF-8 >/dev/null 2>&1";
        if (std::system(compile.c_str()) == 0) {
            setenv("LOCPATH", name.c_str(), 1);
            std::setlocale(LC_ALL, "de_DE.UTF-8");
        }
    }

    std::string directory_;
};

TEST(ExportTest, WritesAndReadsFullStopsWhateverTheLocale) {
    Snapshot sample;
    sample.cpuUsage = 12.345;
    sample.sensors = {{"TC0P", "", 1e17 + 0.5}};
    sample.fans = {{0, 1e300, {}, {}, {}, true}, {1, 1234.5, {}, {}, {}, true}};
    const std::string table = Export::csv(std::span(&sample, 1));
    const std::string json = encodeJson(sample);

    const CommaLocale locale;
    if (!CommaLocale::isSet()) {
        GTEST_SKIP() << "no locale with a decimal comma here, and none could be made";
    }
    char text[20];
    std::snprintf(text, sizeof text, "%.1f", 1234.5);
    ASSERT_STREQ(text, "1234,5");
    EXPECT_EQ(Export::csv(std::span(&sample, 1)), table);
    EXPECT_EQ(fixed2(1834.5), "1834.50");
    EXPECT_EQ(encodeJson(sample), json);
    EXPECT_EQ(decodeJson<Snapshot>(json), sample);
}

}  // namespace
}  // namespace ferovane
