#include <gtest/gtest.h>
#include <mach/mach.h>

#include <algorithm>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "shim/fv.h"
#include "tests/shim/attached_mac_test.h"

namespace {

constexpr int kNotPrivileged = -536870207;
constexpr int kNotResponding = -536870163;
constexpr std::uint32_t kNotOpen = 4711;  // no connection of ours ever has this number

class SMCCallsTest : public tests::AttachedMacTest {
protected:
    SMCCallsTest() : AttachedMacTest(simulator::intelMac(2)) {}

    void SetUp() override {
        connection = fv_smc_open();
        ASSERT_NE(connection, 0u);
    }
    void TearDown() override {
        fv_smc_close(connection);
        AttachedMacTest::TearDown();
    }

    int readCode(const char* key) {
        FVValue value{};
        return fv_smc_read(connection, key, &value);
    }
    int writeCode(const char* key) {
        FVValue value{};
        value.data_size = 1;
        return fv_smc_write(connection, key, &value);
    }

    std::uint32_t connection = 0;
};

TEST_F(SMCCallsTest, ReadsSizeTypeAndBytesInTwoCalls) {
    std::vector<std::uint8_t> bytes(32);
    std::generate(bytes.begin(), bytes.end(), [next = 200]() mutable { return next++ & 0xFF; });
    mac.setKey("ABCD", "ch8*", bytes);
    mac.clearCalls();
    FVValue value{};
    ASSERT_EQ(fv_smc_read(connection, "ABCD", &value), 0);
    EXPECT_EQ(value.data_size, 32u);
    EXPECT_EQ(value.data_type, 0x6368382Au);
    EXPECT_EQ(std::vector<std::uint8_t>(std::begin(value.data), std::end(value.data)), bytes);
    EXPECT_EQ(mac.calls(), (simulator::CallCounts{.reads = 1, .keyInfos = 1}));
}

TEST_F(SMCCallsTest, BadArgumentsNeverReachTheController) {
    mac.clearCalls();
    FVValue value{};
    value.data_size = 1;
    for (const char* key : {"", "F0M", "F0Md ", "F0Md\n"}) {
        EXPECT_EQ(fv_smc_read(connection, key, &value), -1) << key;
        value.data_size = 1;
        EXPECT_EQ(fv_smc_write(connection, key, &value), -1) << key;
    }
    char text[FV_SMC_KEY_TEXT_SIZE];
    EXPECT_EQ(fv_smc_read(connection, nullptr, &value), -1);
    EXPECT_EQ(fv_smc_read(connection, "F0Md", nullptr), -1);
    EXPECT_EQ(fv_smc_read(0, "F0Md", &value), -1);
    EXPECT_EQ(fv_smc_write(connection, nullptr, &value), -1);
    EXPECT_EQ(fv_smc_write(connection, "F0Md", nullptr), -1);
    EXPECT_EQ(fv_smc_write(0, "F0Md", &value), -1);
    EXPECT_EQ(fv_smc_key_at_index(0, 0, text), -1);
    EXPECT_EQ(fv_smc_key_at_index(connection, 0, nullptr), -1);
    for (const std::uint32_t size : {0u, 33u, 0xFFFFFFFFu}) {
        value.data_size = size;
        EXPECT_EQ(fv_smc_write(connection, "F0Md", &value), -1) << size;
    }
    EXPECT_EQ(mac.calls().total(), 0u);
}

TEST_F(SMCCallsTest, KeySizesOutsideOneTo32AreUnusable) {
    mac.setKey("ABCD", "ui8", {7});
    for (const std::uint32_t size : {0u, 33u, 0xFFFFFFFFu}) {
        mac.setKeySize("ABCD", size);
        mac.clearCalls();
        EXPECT_EQ(readCode("ABCD"), -2) << size;
        EXPECT_EQ(mac.calls().reads, 0u);
    }
}

TEST_F(SMCCallsTest, PassesEveryCodeThroughUnchanged) {
    EXPECT_EQ(readCode("ZZZZ"), 0x84);
    mac.setKey("ABCD", "ui8", {7});
    mac.setUnreadable("ABCD");
    EXPECT_EQ(readCode("ABCD"), 0x85);

    for (const int code : {1, 0x82, 255, kNotPrivileged, kNotResponding}) {
        mac.refuseReads("F0Ac", code, simulator::kOnce);
        EXPECT_EQ(readCode("F0Ac"), code);
        mac.refuseWrites("F0Md", code, simulator::kOnce);
        EXPECT_EQ(writeCode("F0Md"), code);
        // The second of a read's two calls.
        mac.atCall(2).refuseReads("F0Ac", code, simulator::kOnce);
        EXPECT_EQ(readCode("F0Ac"), code);
        mac.clearFaults();
    }
    mac.refuseCalls(kNotResponding, simulator::kOnce);
    char key[FV_SMC_KEY_TEXT_SIZE] = "same";
    EXPECT_EQ(fv_smc_key_at_index(connection, 0, key), kNotResponding);
    EXPECT_STREQ(key, "same");
    EXPECT_GT(fv_smc_key_at_index(connection, 1'000'000, key), 0);

    FVValue value{};
    EXPECT_EQ(fv_smc_read(kNotOpen, "F0Ac", &value), MACH_SEND_INVALID_DEST);
}

TEST_F(SMCCallsTest, RepliesOfAnotherSizeAreRefused) {
    for (const std::size_t size : {0u, 79u}) {
        mac.wrongOutputSize(size);
        EXPECT_EQ(readCode("F0Ac"), -1) << size;
        EXPECT_EQ(writeCode("F0Md"), -1) << size;
        char key[FV_SMC_KEY_TEXT_SIZE];
        EXPECT_EQ(fv_smc_key_at_index(connection, 0, key), -1) << size;
        mac.clearFaults();

        mac.atCall(2).wrongOutputSize(size, simulator::kOnce);
        EXPECT_EQ(readCode("F0Ac"), -1) << size;
        mac.clearFaults();
    }
}

TEST_F(SMCCallsTest, WritesTheBytesAndSizeOfTheValue) {
    FVValue value{};
    ASSERT_EQ(fv_smc_read(connection, "F1Tg", &value), 0);
    ASSERT_EQ(fv_encode(&value, 3210.0), 0);
    mac.clearCalls();
    EXPECT_EQ(fv_smc_write(connection, "F1Tg", &value), 0);
    EXPECT_EQ(mac.writes(), "F1Tg=3210");
    EXPECT_EQ(mac.calls(), (simulator::CallCounts{.writes = 1}));
    value.data_size = 3;
    EXPECT_EQ(fv_smc_write(connection, "F1Tg", &value), simulator::kSizeMismatch);
}

TEST_F(SMCCallsTest, EveryIndexHasAName) {
    std::set<std::string> names;
    for (std::uint32_t index = 0; index < mac.keyCount(); ++index) {
        char key[FV_SMC_KEY_TEXT_SIZE];
        ASSERT_EQ(fv_smc_key_at_index(connection, index, key), 0) << index;
        EXPECT_TRUE(mac.hasKey(key)) << key;
        names.insert(key);
    }
    EXPECT_EQ(names.size(), mac.keyCount());
}

TEST_F(SMCCallsTest, OpensOnlyWhatCanBeOpened) {
    const std::uint32_t second = fv_smc_open();
    EXPECT_NE(second, 0u);
    EXPECT_EQ(mac.ports().services, 0);
    EXPECT_EQ(mac.ports().connections, 2);
    fv_smc_close(second);
    fv_smc_close(0);
    EXPECT_EQ(mac.ports().connections, 1);
    mac.refuseOpening(kNotPrivileged, simulator::kOnce);
    EXPECT_EQ(fv_smc_open(), 0u);
}

TEST(SMCOpenTest, NoControllerNoConnection) {
    simulator::SimulatedMac mac = simulator::macWithoutController();
    const auto attached = mac.attach();
    EXPECT_EQ(fv_smc_open(), 0u);
    EXPECT_EQ(mac.ports(), simulator::PortCounts{});
}

// ---- The list of what may be written -----------------------------------------------------------

constexpr char kFirstPrintable = ' ';
constexpr char kLastPrintable = '~';

std::set<std::string> writableKeys() {
    std::set<std::string> keys{"FS! "};
    for (char fan = '0'; fan <= '9'; ++fan) {
        for (const char* suffix : {"Md", "md", "Tg"}) {
            keys.insert(std::string{'F', fan} + suffix);
        }
    }
    return keys;
}

// A write over a connection that is not open: -3 when the shim itself refuses the key, and the
// kernel's complaint when it would have been sent.
int attemptWrite(const std::string& key) {
    FVValue value{};
    value.data_size = 1;
    return fv_smc_write(kNotOpen, key.c_str(), &value);
}

TEST(WriteListTest, AdmitsExactlyModeAndTargetOfTenFansAndTheMask) {
    std::set<std::string> admitted;
    FVValue value{};
    value.data_size = 1;
    // Every key of four printable characters, some 81 million.
    for (std::string key(4, kFirstPrintable); key[0] <= kLastPrintable;) {
        if (fv_smc_write(kNotOpen, key.c_str(), &value) != -3) {
            admitted.insert(key);
        }
        for (std::size_t place = 3; ++key[place] > kLastPrintable && place > 0; --place) {
            key[place] = kFirstPrintable;
        }
    }
    EXPECT_EQ(admitted, writableKeys());
    EXPECT_EQ(admitted.size(), 31u);
    for (const std::string& writable : admitted) {
        EXPECT_EQ(attemptWrite(writable), MACH_SEND_INVALID_DEST) << writable;
    }
}

// One character away from an admitted key, at each place and over every byte there is.
TEST(WriteListTest, NeighboursOfAdmittedKeysAreRefused) {
    const std::set<std::string> writable = writableKeys();
    for (const std::string& key : writable) {
        for (std::size_t place = 0; place < key.size(); ++place) {
            for (int byte = 1; byte <= 255; ++byte) {
                std::string neighbour = key;
                neighbour[place] = static_cast<char>(byte);
                EXPECT_EQ(attemptWrite(neighbour) != -3, writable.contains(neighbour)) << neighbour;
            }
        }
    }
}

}  // namespace
