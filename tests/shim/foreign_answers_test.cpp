// What other programs, drivers and system versions may answer, however odd. This program brings its
// own platform calls along, each answering what the test at hand has laid out.
#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/IOKitLib.h>
#include <IOKit/ps/IOPowerSources.h>
#include <IOKit/pwr_mgt/IOPMLib.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/sysctl.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "live_objects.h"
#include "shim/fv.h"
#include "shim/owned_ref.h"

namespace {

using Owned = ferovane::shim::OwnedRef<CFTypeRef>;
using Block = std::array<std::uint8_t, 80>;
using testing::ElementsAre;

struct Platform {
    kern_return_t openCode = kIOReturnSuccess;
    std::vector<Block> requests;
    Block reply{};
    std::size_t replySize = 80;
    Owned powerSources;  // an array of descriptions serves as the blob and as the list
    bool hasList = true;
    Owned providingType;
    std::map<std::string, std::int64_t> gauge;
    Owned cpuLimits;
    std::uint32_t thermalLevel = 0;
    Owned assertions;
    std::string systemValue;
};
Platform platform;

CFTypeRef retained(const Owned& object) {
    return object ? CFRetain(object.get()) : nullptr;
}

Owned text(const char* content) {
    return Owned(CFStringCreateWithCString(nullptr, content, kCFStringEncodingUTF8));
}

Owned number(std::int64_t value) {
    return Owned(CFNumberCreate(nullptr, kCFNumberSInt64Type, &value));
}

Owned fraction(double value) {
    return Owned(CFNumberCreate(nullptr, kCFNumberFloat64Type, &value));
}

Owned boolean(bool value) {
    return Owned(CFRetain(value ? kCFBooleanTrue : kCFBooleanFalse));
}

void fill(CFMutableDictionaryRef) {}

template <class... Rest>
void fill(CFMutableDictionaryRef dictionary, const Owned& key, const Owned& value,
          const Rest&... rest) {
    CFDictionarySetValue(dictionary, key.get(), value.get());
    fill(dictionary, rest...);
}

template <class... KeysAndValues>
Owned dictionary(const KeysAndValues&... keysAndValues) {
    const CFMutableDictionaryRef made = CFDictionaryCreateMutable(
        nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    fill(made, keysAndValues...);
    return Owned(made);
}

template <class... Elements>
Owned array(const Elements&... elements) {
    std::vector<const void*> values{elements.get()...};
    return Owned(CFArrayCreate(nullptr, values.data(), static_cast<CFIndex>(values.size()),
                               &kCFTypeArrayCallBacks));
}

}  // namespace

// ---- The platform ------------------------------------------------------------------------------

extern "C" {

CFMutableDictionaryRef IOServiceMatching(const char*) {
    return nullptr;
}
io_service_t IOServiceGetMatchingService(mach_port_t, CFDictionaryRef) {
    return 7;
}
kern_return_t IOObjectRelease(io_object_t) {
    return kIOReturnSuccess;
}
kern_return_t IOServiceClose(io_connect_t) {
    return kIOReturnSuccess;
}

kern_return_t IOServiceOpen(io_service_t, task_port_t, std::uint32_t, io_connect_t* connect) {
    *connect = 99;
    return platform.openCode;
}

kern_return_t IOConnectCallStructMethod(mach_port_t, std::uint32_t selector, const void* input,
                                        std::size_t inputSize, void* output,
                                        std::size_t* outputSize) {
    EXPECT_EQ(selector, 2u);
    EXPECT_EQ(inputSize, sizeof(Block));
    EXPECT_EQ(*outputSize, sizeof(Block));
    platform.requests.emplace_back();
    std::memcpy(platform.requests.back().data(), input, sizeof(Block));
    std::memcpy(output, platform.reply.data(), sizeof(Block));
    *outputSize = platform.replySize;
    return kIOReturnSuccess;
}

CFTypeRef IORegistryEntryCreateCFProperty(io_registry_entry_t, CFStringRef key, CFAllocatorRef,
                                          IOOptionBits) {
    for (const auto& [name, value] : platform.gauge) {
        if (CFEqual(text(name.c_str()).get(), key) != 0) {
            return retained(number(value));
        }
    }
    return nullptr;
}

CFTypeRef IOPSCopyPowerSourcesInfo(void) {
    return retained(platform.powerSources);
}
CFArrayRef IOPSCopyPowerSourcesList(CFTypeRef) {
    return platform.hasList ? static_cast<CFArrayRef>(retained(platform.powerSources)) : nullptr;
}
CFDictionaryRef IOPSGetPowerSourceDescription(CFTypeRef, CFTypeRef source) {
    const bool described = CFGetTypeID(source) == CFDictionaryGetTypeID();
    return described ? static_cast<CFDictionaryRef>(source) : nullptr;
}
CFStringRef IOPSGetProvidingPowerSourceType(CFTypeRef) {
    return static_cast<CFStringRef>(platform.providingType.get());
}

IOReturn IOPMCopyCPUPowerStatus(CFDictionaryRef* status) {
    if (platform.cpuLimits) {
        *status = static_cast<CFDictionaryRef>(retained(platform.cpuLimits));
    }
    return kIOReturnSuccess;
}
IOReturn IOPMGetThermalWarningLevel(std::uint32_t* level) {
    *level = platform.thermalLevel;
    return kIOReturnSuccess;
}
IOReturn IOPMCopyAssertionsByProcess(CFDictionaryRef* byProcess) {
    if (platform.assertions) {
        *byProcess = static_cast<CFDictionaryRef>(retained(platform.assertions));
    }
    return kIOReturnSuccess;
}

int sysctlbyname(const char*, void* value, std::size_t* size, void*, std::size_t) {
    if (*size < platform.systemValue.size()) {
        return -1;
    }
    *size = platform.systemValue.copy(static_cast<char*>(value), *size);
    return 0;
}

}  // extern "C"

namespace {

class ForeignAnswersTest : public testing::Test {
protected:
    ForeignAnswersTest() { platform = {}; }
    ~ForeignAnswersTest() override {
        platform = {};
        EXPECT_EQ(simulator::liveObjects(), liveBefore_);
    }

private:
    std::int64_t liveBefore_ = simulator::liveObjects();
};

// ---- The controller's driver -------------------------------------------------------------------

Block blockOf(std::initializer_list<std::pair<std::size_t, std::uint8_t>> bytes) {
    Block block{};
    for (const auto& [offset, byte] : bytes) {
        block[offset] = byte;
    }
    return block;
}

TEST_F(ForeignAnswersTest, EveryRequestIsExactToTheByte) {
    platform.reply = blockOf({{28, 2}, {32, '2'}, {33, 'e'}, {34, 'p'}, {35, 'f'}, {48, 0x1F}});
    FVValue value{};
    ASSERT_EQ(fv_smc_read(1, "F1Tg", &value), 0);
    EXPECT_EQ(fv_decode(&value), 1984.0);
    std::fill(std::begin(value.data), std::end(value.data), std::uint8_t{0});
    value.data[0] = 0xAB;
    value.data[31] = 0xCD;
    ASSERT_EQ(fv_smc_write(1, "FS! ", &value), 0);
    char key[FV_SMC_KEY_TEXT_SIZE] = {'x', 'x', 'x', 'x', 'x'};
    platform.reply = blockOf({{0, 'Y'}, {1, 'E'}, {2, 'K'}, {3, '#'}});
    ASSERT_EQ(fv_smc_key_at_index(1, 0x01020304, key), 0);
    EXPECT_STREQ(key, "#KEY");

    EXPECT_THAT(
        platform.requests,
        ElementsAre(
            blockOf({{0, 'g'}, {1, 'T'}, {2, '1'}, {3, 'F'}, {42, 9}}),
            blockOf({{0, 'g'}, {1, 'T'}, {2, '1'}, {3, 'F'}, {28, 2}, {42, 5}}),
            blockOf(
                {{0, ' '}, {1, '!'}, {2, 'S'}, {3, 'F'}, {28, 2}, {42, 6}, {48, 0xAB}, {79, 0xCD}}),
            blockOf({{42, 8}, {44, 4}, {45, 3}, {46, 2}, {47, 1}})));
}

TEST_F(ForeignAnswersTest, AFailedOpenOrALongerReplyIsNotTrusted) {
    EXPECT_EQ(fv_smc_open(), 99u);
    platform.openCode = kIOReturnNotPrivileged;
    EXPECT_EQ(fv_smc_open(), 0u);

    platform.reply = blockOf({{28, 2}});
    platform.replySize = 81;
    FVValue value{};
    EXPECT_EQ(fv_smc_read(1, "F1Tg", &value), -1);
}

// ---- Power sources -----------------------------------------------------------------------------

TEST_F(ForeignAnswersTest, TakesTheFirstInternalBatteryThatIsThere) {
    const auto source = [](const char* type, const Owned& current, const Owned& maximum,
                           const Owned& charging, const Owned& present) {
        return dictionary(text("Type"), text(type), text("Current Capacity"), current,
                          text("Max Capacity"), maximum, text("Is Charging"), charging,
                          text("Is Present"), present);
    };
    const char* internal = "InternalBattery";
    const Owned yes = boolean(true), no = boolean(false), none = text("?");
    const struct {
        Owned sources;
        double percent;
        int charging;
    } cases[] = {
        {array(text("no description"), dictionary(),
               source("UPS", number(9), number(100), yes, yes),
               source(internal, number(1), number(100), yes, no),
               source(internal, number(3000), number(4000), yes, yes),
               source(internal, number(50), number(100), no, yes)),
         75, 1},
        // Not every source says whether it is there.
        {array(source(internal, number(1), number(8), no, none)), 12.5, 0},
        {array(source(internal, number(50), number(0), number(1), yes)), NAN, -1},
        {array(source(internal, text("50"), number(100), no, yes)), NAN, 0},
        {array(source(internal, number(50), none, yes, yes)), NAN, 1},
        {array(), NAN, -1},
    };
    for (const auto& c : cases) {
        platform.powerSources = Owned(CFRetain(c.sources.get()));
        const FVBattery battery = fv_battery();
        EXPECT_EQ(std::isnan(battery.percent), std::isnan(c.percent));
        EXPECT_TRUE(std::isnan(c.percent) || battery.percent == c.percent) << c.percent;
        EXPECT_EQ(battery.charging, c.charging) << c.percent;
    }
    platform.powerSources = Owned(CFRetain(cases[0].sources.get()));
    platform.hasList = false;
    EXPECT_TRUE(std::isnan(fv_battery().percent));

    // A discharge current as drivers publish it: an unsigned number that has wrapped around.
    platform.gauge = {{"Amperage", static_cast<std::int64_t>(18446744073709550116u)},
                      {"CycleCount", -3}};
    EXPECT_EQ(fv_battery().milliamps, -1500.0);
    EXPECT_EQ(fv_battery().cycles, -1);
    EXPECT_TRUE(std::isnan(fv_battery().millivolts));
}

TEST_F(ForeignAnswersTest, AcPowerNeedsAnswerAndType) {
    platform.providingType = text("AC Power");
    EXPECT_EQ(fv_ac_power(), -1);
    platform.powerSources = array();
    EXPECT_EQ(fv_ac_power(), 1);
    platform.providingType = text("UPS Power");
    EXPECT_EQ(fv_ac_power(), 0);
    platform.providingType = Owned();
    EXPECT_EQ(fv_ac_power(), -1);
}

// ---- Power management --------------------------------------------------------------------------

TEST_F(ForeignAnswersTest, CpuLimitsMustBeWholeNumbersOfTheirWidth) {
    const auto status = [] {
        const FVPowerStatus s = fv_power_status();
        return std::vector<int>{s.speed_limit, s.scheduler_limit, s.available_cpus,
                                s.thermal_warning};
    };
    platform.cpuLimits = dictionary(text("CPU_Speed_Limit"), number(std::int64_t{1} << 32),
                                    text("CPU_Scheduler_Limit"), fraction(99.5),
                                    text("CPU_Available_CPUs"), number(8));
    platform.thermalLevel = 0x80000000u;
    EXPECT_THAT(status(), ElementsAre(-1, -1, 8, -1));
    platform.cpuLimits = Owned();  // success, and nothing handed out
    platform.thermalLevel = 110;
    EXPECT_THAT(status(), ElementsAre(-1, -1, -1, 110));
}

TEST_F(ForeignAnswersTest, AssertionsSkipWhatIsNoneAndKeepWhatIsIncomplete) {
    const Owned bare = dictionary();
    const Owned mistyped = dictionary(text("AssertType"), number(1), text("AssertLevel"),
                                      text("255"), text("AssertStartWhen"), number(1));
    platform.assertions =
        dictionary(text("not a pid"), array(bare), number(std::int64_t{1} << 40), array(bare),
                   number(5), bare, number(42), array(boolean(false), bare, text("?"), mistyped));
    int seen = 0;
    const auto visit = [](void* context, const FVPowerAssertion* assertion) {
        ++*static_cast<int*>(context);
        EXPECT_TRUE(assertion->pid == 42 && assertion->level == 0 && !assertion->type &&
                    !assertion->reason && !assertion->process_name);
        EXPECT_TRUE(std::isnan(assertion->since));
    };
    EXPECT_EQ(fv_power_assertions(visit, &seen), 0);
    EXPECT_EQ(seen, 2);
    // A visitor that fails must not leak what was copied for it.
    EXPECT_THROW(fv_power_assertions([](void*, const FVPowerAssertion*) { throw 1; }, nullptr),
                 int);
}

// ---- Named system values -----------------------------------------------------------------------

TEST_F(ForeignAnswersTest, SystemValuesMustHaveTheirSize) {
    for (const std::size_t size : {0u, 2u, 3u}) {
        platform.systemValue = std::string("\1\0\0\0", size);
        EXPECT_EQ(fv_memory_pressure(), -1) << size;
        EXPECT_EQ(fv_apple_silicon(), 0) << size;
    }
    platform.systemValue = std::string("\1\0\0\0", 4);
    EXPECT_EQ(fv_memory_pressure(), 1);
    EXPECT_EQ(fv_apple_silicon(), 1);

    FVMemory memory{};
    EXPECT_EQ(fv_memory(&memory), 0) << "the page counts are known";
    EXPECT_EQ(memory.total_bytes, 0U);
    EXPECT_GT(memory.page_size, 0U);

    char brand[16];
    platform.systemValue = "no end";
    EXPECT_EQ(fv_cpu_brand(brand, sizeof brand), -1);
    EXPECT_STREQ(brand, "");
    EXPECT_EQ(fv_system_version(), -1);
}

}  // namespace
