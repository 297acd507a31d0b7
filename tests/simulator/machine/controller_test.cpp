// The controller as programs reach it: result codes, writes, enumeration, ports.
#include <IOKit/IOKitLib.h>
#include <gtest/gtest.h>

#include <cstring>

#include "simulator/machine/controller.h"
#include "simulator/machine/four_characters.h"
#include "simulator/machine/simulated_mac.h"
#include "tests/simulator/machine/connection.h"

namespace {

using namespace simulator;

constexpr int kNotPrivileged = static_cast<int>(0xE00002C1);
constexpr int kBadArgument = static_cast<int>(0xE00002C2);
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

TEST(ControllerTest, TakesOnlyWholeRequestsOnLiveConnections) {
    SimulatedMac mac = intelMac(1);
    const auto attached = mac.attach();
    const Connection smc;
    const ControllerBlock in = blockFor(9, "FNum");
    ControllerBlock out = {};
    std::size_t size = sizeof out;
    EXPECT_EQ(IOConnectCallStructMethod(smc.handle(), 2, &in, 79, &out, &size), kBadArgument);
    EXPECT_EQ(IOConnectCallStructMethod(smc.handle(), 1, &in, 80, &out, &size), kBadArgument);
    size = 79;
    EXPECT_EQ(IOConnectCallStructMethod(smc.handle(), 2, &in, 80, &out, &size), kBadArgument);
    EXPECT_EQ(call(0, in, out), kInvalidDestination);
    EXPECT_EQ(call(smc.handle() + 1, in, out), kInvalidDestination);
}

TEST(ControllerTest, OnlyPrivilegedProcessesWrite) {
    SimulatedMac mac = intelMac(1);
    const auto attached = mac.attach();
    const Connection smc;
    mac.set(Property::kPrivileged, 0);
    EXPECT_EQ(smc.write("F0Md", 1), kNotPrivileged);
    EXPECT_EQ(smc.read("F0Md"), 0);
    mac.set(Property::kPrivileged, 1);
    EXPECT_EQ(smc.write("F0Md", 1), 0);
    EXPECT_EQ(mac.writes(), "F0Md=1!E00002C1 F0Md=1");
}

TEST(ControllerTest, ListsEveryKeyOnceAndReadsBackEachName) {
    SimulatedMac mac = builtInMac("MacPro7,1");
    const auto attached = mac.attach();
    const Connection smc;
    ASSERT_EQ(smc.read("#KEY"), static_cast<double>(mac.keyCount()));
    std::vector<std::string> names;
    for (std::uint32_t i = 0; i < mac.keyCount(); ++i) {
        char name[5] = {};
        ASSERT_EQ(fv_smc_key_at_index(smc.handle(), i, name), 0);
        ASSERT_TRUE(mac.hasKey(name)) << name;
        names.emplace_back(name);
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(std::unique(names.begin(), names.end()), names.end());
    EXPECT_EQ(mac.calls().names, mac.keyCount());
}

TEST(ControllerTest, KeysThatAreAddedAndRemovedAreFoundAndMissed) {
    SimulatedMac mac = intelMac(2);
    const std::size_t before = mac.keyCount();
    mac.addTemperatureKeys(300);
    mac.setKey("TC9C", "sp78", {0x35, 0x80});
    mac.removeKey("TG0P");
    const auto attached = mac.attach();
    const Connection smc;
    EXPECT_EQ(mac.keyCount(), before + 300);
    EXPECT_EQ(smc.read("TC9C"), 53.5);
    EXPECT_EQ(smc.readCode("TG0P"), kKeyNotFound);
    EXPECT_EQ(smc.read("T08B"), 35 + 299 % 25 + 0.5);
    EXPECT_EQ(smc.read("F1Mx"), 5800) << "the others stay where they were";
}

TEST(ControllerTest, CountsWhatAProgramStillHolds) {
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

TEST(ControllerTest, IsNotThereWithoutAMachineOrWithoutAController) {
    EXPECT_EQ(fv_smc_open(), 0U);
    SimulatedMac mac = macWithoutController();
    const auto attached = mac.attach();
    EXPECT_EQ(fv_smc_open(), 0U);
    EXPECT_EQ(mac.ports(), PortCounts{});
}

}  // namespace
