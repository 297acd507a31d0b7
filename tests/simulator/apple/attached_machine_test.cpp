#include <gtest/gtest.h>
#include <mach/mach_time.h>
#include <objc/message.h>
#include <objc/runtime.h>
#include <sys/sysctl.h>

#include <array>
#include <cstring>
#include <string>

#include "tests/simulator/apple/fake_attached_machine.h"

namespace {

std::string text(const char* name) {
    std::array<char, 64> buffer{};
    std::size_t size = buffer.size();
    EXPECT_EQ(sysctlbyname(name, buffer.data(), &size, nullptr, 0), 0) << name;
    EXPECT_EQ(std::strlen(buffer.data()) + 1, size);
    return buffer.data();
}

std::int32_t integer(const char* name) {
    std::int32_t value = -1;
    std::size_t size = sizeof value;
    return sysctlbyname(name, &value, &size, nullptr, 0) == 0 && size == sizeof value ? value : -1;
}

template <class Result>
Result ask(const char* message) {
    const Class type = objc_getClass("NSProcessInfo");
    const id info =
        reinterpret_cast<id (*)(Class, SEL)>(objc_msgSend)(type, sel_registerName("processInfo"));
    return reinterpret_cast<Result (*)(id, SEL)>(objc_msgSend)(info, sel_registerName(message));
}

TEST(AttachedMachineTest, AnswersForTheHost) {
    FakeAttachedMachine machine;
    EXPECT_EQ(text("machdep.cpu.brand_string"), "Some Chip Max");
    EXPECT_EQ(text("kern.osproductversion"), "14.2.1");
    EXPECT_EQ(integer("hw.optional.arm64"), 1);
    EXPECT_EQ(integer("kern.memorystatus_vm_pressure_level"), 4);
    EXPECT_EQ(integer("hw.ncpu"), 37);
    EXPECT_EQ(ask<unsigned long>("processorCount"), 37u);
    EXPECT_EQ(ask<long>("thermalState"), 2);
    EXPECT_NE(ask<BOOL>("isLowPowerModeEnabled"), 0);
    machine.lowPower = false;
    EXPECT_EQ(ask<BOOL>("isLowPowerModeEnabled"), 0);

    machine.arm = false;
    machine.lowPower.reset();
    EXPECT_EQ(integer("hw.optional.arm64"), -1);
    EXPECT_EQ(class_respondsToSelector(objc_getClass("NSProcessInfo"),
                                       sel_registerName("isLowPowerModeEnabled")),
              0);
}

TEST(AttachedMachineTest, SleepMovesTheContinuousClockAlone) {
    FakeAttachedMachine machine;
    const std::uint64_t awakeBefore = mach_absolute_time();
    const std::uint64_t before = mach_continuous_time();
    machine.sleptSeconds = 3600;
    EXPECT_GE(mach_continuous_time() - before, 3'600'000'000'000u);
    EXPECT_LT(mach_absolute_time() - awakeBefore, 60'000'000'000u);
    machine.sleptSeconds = -1e12;
    EXPECT_EQ(mach_continuous_time(), 0u);
}

}  // namespace
