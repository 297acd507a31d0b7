// The controller as programs reach it: result codes, writes, enumeration, ports.
#include <IOKit/IOKitLib.h>
#include <gtest/gtest.h>

#include <cstring>

#include "simulator/machine/controller.h"
#include "simulator/machine/four_characters.h"
#include "simulator/machine/simulated_mac.h"
#include "tests/simulator/machine_fixture.h"

namespace {

using namespace simulator;

constexpr int kUnknownKeyWritten = static_cast<int>(0xE00002BC);
constexpr int kInvalidDestination = 0x10000003;

ControllerBlock blockFor(std::uint8_t command, std::string_view key) {
    ControllerBlock block = {};
    block.command = command;
    block.key = packed(key);
    return block;
}

int call(std::uint32_t connection, const ControllerBlock& in, ControllerBlock& out) {
    std::size_t size = sizeof out;
    return IOConnectCallStructMethod(connection, 2, &in, sizeof in, &out, &size);
}

TEST(ControllerTest, AnswersEachRequestWithItsOwnCode) {
    SimulatedMac mac = intelMac(2);
    mac.setUnreadable("TB0T");
    const auto attached = mac.attach();
    const Connection smc;
    struct Case {
        const char* what;
        std::uint8_t command;
        const char* key;
        std::uint32_t size, index;
        int code, result;
    };
    const Case cases[] = {
        {"information", 9, "F0Tg", 0, 0, 0, 0},
        {"information of an unknown key", 9, "Nope", 0, 0, 0, kKeyNotFound},
        {"read", 5, "F0Tg", 4, 0, 0, 0},
        {"read of an unknown key", 5, "Nope", 4, 0, 0, kKeyNotFound},
        {"read of an unreadable key", 5, "TB0T", 2, 0, 0, kNotReadable},
        {"read of a wrong size", 5, "F0Tg", 2, 0, 0, kSizeMismatch},
        {"write of a wrong size", 6, "F0Tg", 2, 0, 0, kSizeMismatch},
        {"write of a limit", 6, "F0Mx", 4, 0, 0, kNotWritable},
        {"write of an unknown key", 6, "Nope", 4, 0, kUnknownKeyWritten, 0},
        {"last name", 8, "", 0, static_cast<std::uint32_t>(mac.keyCount() - 1), 0, 0},
        {"name behind the last", 8, "", 0, static_cast<std::uint32_t>(mac.keyCount()), 0, 0xB8},
        {"unknown command", 7, "F0Tg", 0, 0, 0, kBadCommand},
    };
    mac.set(Property::kPrivileged, 1);
    for (const Case& wanted : cases) {
        ControllerBlock in = blockFor(wanted.command, wanted.key);
        in.dataSize = wanted.size;
        in.index = wanted.index;
        ControllerBlock out = {};
        EXPECT_EQ(call(smc.handle(), in, out), wanted.code) << wanted.what;
        EXPECT_EQ(out.result, wanted.result) << wanted.what;
    }
}

TEST(ControllerTest, CountsWhatAProgramStillHolds) {
    EXPECT_EQ(fv_smc_open(), 0U) << "without a machine";
    SimulatedMac mac = intelMac(0);
    const auto attached = mac.attach();
    const io_service_t service =
        IOServiceGetMatchingService(MACH_PORT_NULL, IOServiceMatching("AppleSMC"));
    ASSERT_NE(service, IO_OBJECT_NULL);
    io_connect_t connection = 0;
    ASSERT_EQ(IOServiceOpen(service, mach_task_self(), 0, &connection), KERN_SUCCESS);
    EXPECT_EQ(mac.ports(), (PortCounts{1, 1, 0}));
    EXPECT_EQ(IOObjectRelease(connection), kInvalidDestination) << "connections are closed instead";
    EXPECT_EQ(IOObjectRelease(service), KERN_SUCCESS);
    EXPECT_EQ(IOObjectRelease(service), kInvalidDestination);
    EXPECT_EQ(IOServiceClose(connection), KERN_SUCCESS);
    EXPECT_EQ(mac.ports(), (PortCounts{0, 0, 2}));
}

}  // namespace
