// What the stand-ins for Apple's libraries tell of a program that misuses them or keeps what it
// holds.
#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/IOKitLib.h>
#include <gtest/gtest.h>

#include "simulator/apple/live_objects.h"
#include "simulator/machine/simulated_mac.h"

namespace {

constexpr int kInvalidDestination = 0x10000003;

TEST(CoreFoundationDeathTest, MisuseEndsTheProgramWithItsReason) {
    const std::int64_t live = simulator::liveObjects(), one = 1;
    const CFNumberRef value = CFNumberCreate(nullptr, kCFNumberSInt64Type, &one);
    EXPECT_EQ(simulator::liveObjects(), live + 1);
    const void* reference = value;
    CFRelease(value);
    EXPECT_EQ(simulator::liveObjects(), live);
    EXPECT_DEATH(CFRelease(nullptr), "CFRelease.*null");
    EXPECT_DEATH(CFRelease(reference), "CFRelease.*more often");
    EXPECT_DEATH(CFGetTypeID(reference), "CFGetTypeID.*before");
    EXPECT_DEATH(CFBooleanGetValue(static_cast<CFBooleanRef>(static_cast<const void*>(CFSTR("x")))),
                 "CFBooleanGetValue.*another type");
}

TEST(PortsTest, WhatAProgramStillHoldsIsCounted) {
    using Counts = simulator::PortCounts;
    auto mac = simulator::intelMac(0);
    const auto attached = mac.attach();
    const io_service_t service =
        IOServiceGetMatchingService(MACH_PORT_NULL, IOServiceMatching("AppleSMC"));
    ASSERT_NE(service, IO_OBJECT_NULL);
    io_connect_t connection = 0;
    ASSERT_EQ(IOServiceOpen(service, mach_task_self(), 0, &connection), KERN_SUCCESS);
    EXPECT_EQ(mac.ports(), (Counts{1, 1, 0}));
    EXPECT_EQ(IOObjectRelease(connection), kInvalidDestination) << "connections are closed instead";
    EXPECT_EQ(IOObjectRelease(service), KERN_SUCCESS);
    EXPECT_EQ(IOObjectRelease(service), kInvalidDestination);
    EXPECT_EQ(IOServiceClose(connection), KERN_SUCCESS);
    EXPECT_EQ(mac.ports(), (Counts{0, 0, 2}));
}

}  // namespace
