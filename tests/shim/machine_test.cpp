// What the machine is asked beside its controller: platform, power, clocks, statistics.
#include <IOKit/IOKitLib.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "shim/fv.h"
#include "shim/time_base.h"
#include "simulator/machine/cf_values.h"
#include "tests/shim/attached_mac_test.h"

namespace {

using nlohmann::json;
using simulator::Property;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

// Answers in the place of the simulated Mac's, however odd; where there is none, it is asked.
struct ForeignAnswers {
    std::optional<json> powerSources, assertions;
    std::optional<std::string> systemValue;
};
ForeignAnswers foreign;

// The same in CoreFoundation's objects; a dictionary's key "#5" is the number 5.
simulator::OwnedCF<CFTypeRef> objectOf(const json& value) {
    using Owned = simulator::OwnedCF<CFTypeRef>;
    if (value.is_string()) {
        const auto& text = value.get_ref<const std::string&>();
        return text[0] == '#' ? objectOf(json::parse(text.substr(1)))
                              : Owned(simulator::cfString(text.c_str()));
    }
    if (value.is_boolean()) {
        return Owned(CFRetain(value.get<bool>() ? kCFBooleanTrue : kCFBooleanFalse));
    }
    if (value.is_number_float()) {
        const double number = value;
        return Owned(CFNumberCreate(nullptr, kCFNumberFloat64Type, &number));
    }
    if (value.is_number()) {
        return simulator::cfNumber(value);
    }
    std::vector<simulator::OwnedCF<CFTypeRef>> owned;
    std::vector<const void*> elements;
    auto dictionary = simulator::cfDictionary();
    for (const auto& [key, element] : value.items()) {
        elements.push_back(owned.emplace_back(objectOf(element)).get());
        CFDictionarySetValue(dictionary.get(), objectOf(key).get(), elements.back());
    }
    if (value.is_object()) {
        return dictionary;
    }
    return Owned(
        CFArrayCreate(nullptr, elements.data(), std::ssize(elements), &kCFTypeArrayCallBacks));
}

}  // namespace

extern "C" {

CFTypeRef __real_IOPSCopyPowerSourcesInfo();
CFTypeRef __wrap_IOPSCopyPowerSourcesInfo() {
    return foreign.powerSources ? objectOf(*foreign.powerSources).release()
                                : __real_IOPSCopyPowerSourcesInfo();
}
CFDictionaryRef __real_IOPSGetPowerSourceDescription(CFTypeRef, CFTypeRef);
CFDictionaryRef __wrap_IOPSGetPowerSourceDescription(CFTypeRef sources, CFTypeRef source) {
    const bool described = CFGetTypeID(source) == CFDictionaryGetTypeID();
    return described ? __real_IOPSGetPowerSourceDescription(sources, source) : nullptr;
}
IOReturn __real_IOPMCopyAssertionsByProcess(CFDictionaryRef*);
IOReturn __wrap_IOPMCopyAssertionsByProcess(CFDictionaryRef* byProcess) {
    if (!foreign.assertions) {
        return __real_IOPMCopyAssertionsByProcess(byProcess);
    }
    *byProcess = static_cast<CFDictionaryRef>(objectOf(*foreign.assertions).release());
    return kIOReturnSuccess;
}
int __real_sysctlbyname(const char*, void*, std::size_t*, void*, std::size_t);
int __wrap_sysctlbyname(const char* name, void* value, std::size_t* size, void* newValue,
                        std::size_t newSize) {
    if (!foreign.systemValue) {
        return __real_sysctlbyname(name, value, size, newValue, newSize);
    }
    if (*size < foreign.systemValue->size()) {
        return -1;
    }
    *size = foreign.systemValue->copy(static_cast<char*>(value), *size);
    return 0;
}

}  // extern "C"

namespace {

// What one value each says, the sampler's tests ask of every probe.
class MachineTest : public tests::AttachedMacTest {
protected:
    MachineTest() : AttachedMacTest(simulator::intelMac(2)) {}
    ~MachineTest() override { foreign = {}; }
};

TEST_F(MachineTest, SystemVersionIsMajorTimesHundredPlusMinor) {
    const struct {
        const char* text;
        int version;
    } cases[] = {
        {"12.6", 1206},  {"14.2.1", 1402}, {"11.0", 1100},        {"10.16", 1016}, {"13", 1300},
        {"26.10", 2610}, {"", -1},         {"x.1", -1},           {"12.", -1},     {"12.x", -1},
        {"-1.0", -1},    {"12.100", -1},   {"99999999999.1", -1}, {"12.99", 1299}, {"0", 0},
    };
    for (const auto& item : cases) {
        mac.setSystemVersion(item.text);
        EXPECT_EQ(fv_system_version(), item.version) << item.text;
    }
}

TEST_F(MachineTest, SystemValuesMustHaveTheirSize) {
    for (const std::size_t size : {0U, 2U, 3U, 4U}) {
        foreign.systemValue = std::string("\1\0\0\0", size);
        EXPECT_EQ(fv_memory_pressure(), size == 4 ? 1 : -1) << size;
        EXPECT_EQ(fv_apple_silicon(), size == 4 ? 1 : 0) << size;
    }
    FVMemory memory{};
    EXPECT_EQ(fv_memory(&memory), 0) << "the page counts are known";
    EXPECT_EQ(memory.total_bytes, 0U);
    char brand[16];
    foreign.systemValue = "no end";
    EXPECT_EQ(fv_cpu_brand(brand, sizeof brand), -1);
    EXPECT_STREQ(brand, "");
    EXPECT_EQ(fv_system_version(), -1);
}

TEST_F(MachineTest, TextsFitExactlyOrNotAtAll) {
    mac.setCpuBrand("Intel(R) Core(TM) i9");
    char text[4096];
    ASSERT_EQ(fv_temporary_directory(text, sizeof text), 0);
    const std::string directory = text;
    EXPECT_TRUE(directory.ends_with('/') && access(text, W_OK) == 0) << directory;
    const struct {
        int (*ask)(char*, std::size_t);
        std::string expected;
    } cases[] = {{fv_cpu_brand, "Intel(R) Core(TM) i9"},
                 {fv_temporary_directory, directory},
                 {fv_executable_path, std::filesystem::read_symlink("/proc/self/exe")}};
    for (const auto& [ask, expected] : cases) {
        std::fill(std::begin(text), std::end(text), 'x');
        EXPECT_EQ(ask(text, expected.size() + 1), 0) << expected;
        EXPECT_TRUE(text == expected && text[expected.size() + 1] == 'x');
        EXPECT_EQ(ask(text, sizeof text), 0) << expected;
        EXPECT_EQ(text, expected);
        EXPECT_EQ(ask(text, expected.size()), -1) << expected;
        EXPECT_STREQ(text, "");
        EXPECT_EQ(ask(text, 0), -1) << expected;
        EXPECT_EQ(ask(nullptr, sizeof text), -1) << expected;
    }
}

std::string battery() {
    const FVBattery b = fv_battery();
    return json{b.percent, b.millivolts, b.milliamps, b.charging, b.cycles}.dump();
}

TEST_F(MachineTest, BatteryValuesAreEachTheirOwn) {
    mac.set(Property::kBatteryPercent, 42);
    mac.set(Property::kBatteryMillivolts, 12000);
    mac.set(Property::kBatteryMilliamps, -1500);
    mac.set(Property::kBatteryCharging, 0);
    mac.set(Property::kBatteryCycles, 0);
    EXPECT_EQ(battery(), "[42.0,12000.0,-1500.0,0,0]");
    mac.setAbsent(Property::kBatteryMillivolts);
    mac.set(Property::kBatteryCycles, -3);
    EXPECT_EQ(battery(), "[42.0,null,-1500.0,0,-1]");
}

TEST_F(MachineTest, TakesTheFirstInternalBatteryThatIsThere) {
    mac.set(Property::kBatteryPresent, 0);
    const auto source = [](const char* type, json current, json maximum, json charging,
                           json present = true) {
        return json{{"Type", type},
                    {"Current Capacity", current},
                    {"Max Capacity", maximum},
                    {"Is Charging", charging},
                    {"Is Present", present}};
    };
    const char* internal = "InternalBattery";
    const struct {
        std::vector<json> sources;
        std::string charge;
    } cases[] = {
        {{"no description", json::object(), source("UPS", 9, 100, true),
          source(internal, 1, 100, true, false), source(internal, 3000, 4000, true),
          source(internal, 50, 100, false)},
         "75.0,null,null,1"},
        // Not every source says whether it is there.
        {{source(internal, 1, 8, false, "?")}, "12.5,null,null,0"},
        {{source(internal, 50, 0, 1)}, "null,null,null,-1"},
        {{source(internal, "50", 100, false)}, "null,null,null,0"},
        {{source(internal, 50, "?", true)}, "null,null,null,1"},
        {{}, "null,null,null,-1"},
    };
    for (const auto& [sources, charge] : cases) {
        foreign.powerSources = json{{"Sources", sources}};
        EXPECT_EQ(battery(), "[" + charge + ",-1]");
    }
    foreign.powerSources = json::object();
    EXPECT_EQ(battery(), "[null,null,null,-1,-1]") << "there is no list";
}

TEST_F(MachineTest, LimitsMustFitTheirWidth) {
    mac.set(Property::kSpeedLimit, 4294967296);
    mac.set(Property::kThermalWarning, 2147483648);
    const FVPowerStatus status = fv_power_status();
    EXPECT_TRUE(status.speed_limit == -1 && status.thermal_warning == -1);
}

TEST_F(MachineTest, AssertionsOfAllProcessesAreVisited) {
    std::vector<std::string> seen;
    const auto visit = [&seen] {
        seen.clear();
        return fv_power_assertions(
            [](void* context, const FVPowerAssertion* a) {
                const auto text = [](const char* content) { return content ? content : "none"; };
                static_cast<std::vector<std::string>*>(context)->push_back(
                    json{a->pid, text(a->process_name), text(a->type), text(a->reason), a->level,
                         a->since}
                        .dump());
            },
            &seen);
    };
    mac.releaseAssertions(0);
    EXPECT_EQ(visit(), 0) << "no assertions are no failure";
    EXPECT_THAT(seen, testing::IsEmpty());
    mac.hold({90, "音乐", "PreventUserIdleSystemSleep", "playing", 255, 700000000});
    mac.hold({90, "音乐", "PreventUserIdleDisplaySleep", "", 0, 700000001});
    mac.hold({123, "backupd", "PreventSystemSleep", "backup", 255, 1});
    EXPECT_EQ(visit(), 0);
    EXPECT_THAT(seen, UnorderedElementsAre(
                          R"([123,"backupd","PreventSystemSleep","backup",255,1.0])",
                          R"([90,"音乐","PreventUserIdleDisplaySleep","",0,700000001.0])",
                          R"([90,"音乐","PreventUserIdleSystemSleep","playing",255,700000000.0])"));
    EXPECT_EQ(fv_power_assertions(nullptr, nullptr), -1);
    mac.set(Property::kAssertionsAnswer, 0);
    EXPECT_EQ(visit(), kIOReturnNotFound);

    // What is none is skipped, what is incomplete is kept.
    foreign.assertions = json::parse(R"({"not a pid": [{}], "#1099511627776": [{}], "#5": {},
        "#42": [false, {}, "?", {"AssertType": 1, "AssertLevel": "255", "AssertStartWhen": 1}]})");
    EXPECT_EQ(visit(), 0);
    const char* const incomplete = R"([42,"none","none","none",0,null])";
    EXPECT_THAT(seen, ElementsAre(incomplete, incomplete));
    // A visitor that fails must not leak what was copied for it.
    EXPECT_THROW(fv_power_assertions([](void*, const FVPowerAssertion*) { throw 1; }, nullptr),
                 int);
}

TEST_F(MachineTest, BundleIdentifierMustMatchExactly) {
    const auto root =
        std::filesystem::temp_directory_path() / ("shim-bundle-" + std::to_string(getpid()));
    std::filesystem::create_directories(root / "some.kext/Contents");
    std::ofstream(root / "some.kext/Contents/Info.plist")
        << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>\n"
           "<key>CFBundleIdentifier</key><string>com.vorandel.DisableTurboBoost</string>\n"
           "</dict></plist>\n";
    mac.setRoot(root.string());
    const char* const identifier = "com.vorandel.DisableTurboBoost";
    const char* const none = nullptr;
    for (const char* path : {"/some.kext", "/some.kext/Contents", "/missing.kext", "", none}) {
        for (const char* asked : {identifier, "com.vorandel.DisableTurboBoos",
                                  "com.vorandel.disableturboboost", "\xFF", none}) {
            const bool has = path != none && path == root.root_path() / "some.kext";
            EXPECT_EQ(fv_bundle_has_identifier(path, asked), has && asked == identifier ? 1 : 0);
        }
    }
    std::filesystem::remove_all(root);
}

// ---- Clocks ------------------------------------------------------------------------------------

TEST(TimeBaseTest, ScalesExactlyAndSaturates) {
    __extension__ using Wide = unsigned __int128;
    constexpr std::uint64_t kMost = std::numeric_limits<std::uint64_t>::max();
    constexpr std::uint32_t kRatio = std::numeric_limits<std::uint32_t>::max();
    // The last ticks that fit with 125 / 3, and with the largest ratio: then the rest is too much.
    for (const std::uint64_t ticks : {0UL, 1UL, 7UL, 442721857769029238UL, 442721857769029239UL,
                                      18446744069414584318UL, 18446744069414584319UL, kMost}) {
        for (const std::uint32_t numerator : {0U, 1U, 3U, 125U, kRatio}) {
            for (const std::uint32_t denominator : {0U, 1U, 3U, 4U, kRatio - 1, kRatio}) {
                const Wide exact = Wide{ticks} * numerator / std::max(denominator, 1U);
                EXPECT_EQ(ferovane::shim::scaledTicks(ticks, numerator, denominator),
                          static_cast<std::uint64_t>(std::min(exact, Wide{kMost})))
                    << ticks << " * " << numerator << " / " << denominator;
            }
        }
    }
}

TEST_F(MachineTest, OnlyTheContinuousClockCountsSleep) {
    const double continuous = fv_continuous_seconds();
    const double uptime = fv_uptime_seconds();
    mac.advance(2.5);
    mac.sleep(3600.0);
    EXPECT_NEAR(fv_continuous_seconds() - continuous, 3602.5, 1e-6);
    EXPECT_NEAR(fv_uptime_seconds() - uptime, 2.5, 1e-6);
}

// ---- The host's own statistics, without a machine
// ------------------------------------------------

TEST(HostStatisticsTest, TicksAndMemory) {
    const std::int64_t portReferences = simulator::hostPortReferences();
    std::uint64_t before[4] = {}, after[4] = {};
    ASSERT_EQ(fv_cpu_ticks(&before[0], &before[1], &before[2], &before[3]), 0);
    for (const auto start = std::clock(); std::clock() - start < CLOCKS_PER_SEC / 5;) {
    }
    ASSERT_EQ(fv_cpu_ticks(&after[0], &after[1], &after[2], &after[3]), 0);
    EXPECT_GT(after[0] + after[3], before[0] + before[3]);
    EXPECT_TRUE(after[0] > 0 && after[1] > 0 && after[2] > 0 && after[0] < 1ULL << 32);
    for (int missing = 0; missing < 4; ++missing) {
        const auto out = [&](int place) { return place == missing ? nullptr : &after[place]; };
        EXPECT_EQ(fv_cpu_ticks(out(0), out(1), out(2), out(3)), -1) << missing;
    }

    FVMemory memory{};
    ASSERT_EQ(fv_memory(&memory), 0);
    EXPECT_EQ(memory.page_size, static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE)));
    EXPECT_EQ(memory.total_bytes,
              memory.page_size * static_cast<std::uint64_t>(sysconf(_SC_PHYS_PAGES)));
    const auto used = memory.internal_pages + memory.wired_pages + memory.compressed_pages;
    EXPECT_TRUE(memory.internal_pages > 0 && used * memory.page_size < memory.total_bytes);
    EXPECT_EQ(fv_memory(nullptr), -1);
    EXPECT_EQ(simulator::hostPortReferences(), portReferences);
}

TEST(HostStatisticsTest, AHostWithoutAMachineIsHonest) {
    EXPECT_EQ(fv_smc_open(), 0U);
    EXPECT_EQ(battery(), "[null,null,null,-1,-1]");
    EXPECT_THAT((std::vector{fv_turbo_driver_state(), fv_ac_power(), fv_low_power_mode(),
                             fv_power_status().available_cpus}),
                testing::Each(-1));
    EXPECT_GE(fv_processor_count(), 1);
    // The calling thread takes the class or stays as it is; either way it goes on.
    std::thread(fv_use_utility_priority).join();
}

}  // namespace
