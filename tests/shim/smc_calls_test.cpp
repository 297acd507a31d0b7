#include <gtest/gtest.h>
#include <mach/mach.h>

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
    void TearDown() override {
        fv_smc_close(connection);
        AttachedMacTest::TearDown();
    }

    // What reading, writing and naming a key answer.
    std::vector<int> codes(const char* key = "F0Md") const {
        FVValue value{}, one{1, 0, {}};
        char name[FV_SMC_KEY_TEXT_SIZE];
        return {fv_smc_read(connection, key, &value), fv_smc_write(connection, key, &one),
                fv_smc_key_at_index(connection, 0, name)};
    }

    std::uint32_t connection = fv_smc_open();
};

TEST_F(SMCCallsTest, ReadsAndWritesExactly) {
    std::vector<std::uint8_t> bytes;
    for (int byte = 0; byte < FV_SMC_DATA_SIZE; ++byte) {
        bytes.push_back(static_cast<std::uint8_t>(200 + 3 * byte));
    }
    mac.setKey("ABCD", "ch8*", bytes);
    mac.clearCalls();
    FVValue value{};
    ASSERT_EQ(fv_smc_read(connection, "ABCD", &value), 0);
    EXPECT_EQ(value.data_size, 32u);
    EXPECT_EQ(value.data_type, 0x6368382Au);
    EXPECT_EQ(std::vector<std::uint8_t>(std::begin(value.data), std::end(value.data)), bytes);
    ASSERT_EQ(fv_smc_read(connection, "F1Tg", &value), 0);
    ASSERT_EQ(fv_encode(&value, 3210.0), 0);
    EXPECT_EQ(fv_smc_write(connection, "F1Tg", &value), 0);
    EXPECT_EQ(mac.writes(), "F1Tg=3210");
    EXPECT_EQ(mac.calls(), (simulator::CallCounts{.reads = 2, .writes = 1, .keyInfos = 2}));
    value.data_size = 3;
    EXPECT_EQ(fv_smc_write(connection, "F1Tg", &value), simulator::kSizeMismatch);

    std::set<std::string> names;
    for (std::uint32_t index = 0; index < mac.keyCount(); ++index) {
        char key[FV_SMC_KEY_TEXT_SIZE];
        ASSERT_EQ(fv_smc_key_at_index(connection, index, key), 0) << index;
        EXPECT_TRUE(mac.hasKey(key)) << key;
        names.insert(key);
    }
    EXPECT_EQ(names.size(), mac.keyCount());
}

TEST_F(SMCCallsTest, BadArgumentsNeverReachTheController) {
    mac.clearCalls();
    FVValue value{1, 0, {}}, read{};
    for (const char* key : {"", "F0M", "F0Md ", "F0Md\n", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(fv_smc_read(connection, key, &read), -1);
        EXPECT_EQ(fv_smc_write(connection, key, &value), -1);
    }
    EXPECT_EQ(fv_smc_read(connection, "F0Md", nullptr), -1);
    EXPECT_EQ(fv_smc_read(0, "F0Md", &read), -1);
    EXPECT_EQ(fv_smc_write(connection, "F0Md", nullptr), -1);
    EXPECT_EQ(fv_smc_write(0, "F0Md", &value), -1);
    char text[FV_SMC_KEY_TEXT_SIZE];
    EXPECT_EQ(fv_smc_key_at_index(0, 0, text), -1);
    EXPECT_EQ(fv_smc_key_at_index(connection, 0, nullptr), -1);
    for (const std::uint32_t size : {0u, 33u, 0xFFFFFFFFu}) {
        value.data_size = size;
        EXPECT_EQ(fv_smc_write(connection, "F0Md", &value), -1) << size;
    }
    EXPECT_EQ(mac.calls().total(), 0u);
    for (const std::uint32_t size : {0u, 33u, 0xFFFFFFFFu}) {
        mac.setKeySize("F0Md", size);
        EXPECT_EQ(codes()[0], -2) << size;
    }
    EXPECT_EQ(mac.calls().reads, 0u);
}

TEST_F(SMCCallsTest, PassesEveryCodeThroughUnchanged) {
    EXPECT_EQ(codes("ZZZZ")[0], 0x84);
    for (const int code : {1, 0x82, 255, kNotPrivileged, kNotResponding}) {
        mac.refuseCalls(code);
        EXPECT_EQ(codes(), (std::vector{code, code, code}));
        mac.clearFaults();
        mac.atCall(2).refuseReads("F0Md", code, simulator::kOnce);  // the second of its two calls
        EXPECT_EQ(codes(), (std::vector{code, 0, 0}));
    }
    for (const std::size_t size : {0u, 79u}) {
        mac.wrongOutputSize(size);
        EXPECT_EQ(codes(), (std::vector{-1, -1, -1})) << size;
        mac.clearFaults();
        mac.atCall(2).wrongOutputSize(size, simulator::kOnce);
        EXPECT_EQ(codes(), (std::vector{-1, 0, 0})) << size;
        mac.clearFaults();
    }
    char key[FV_SMC_KEY_TEXT_SIZE] = "same";
    EXPECT_GT(fv_smc_key_at_index(connection, 1'000'000, key), 0);
    EXPECT_STREQ(key, "same");
    FVValue value{};
    EXPECT_EQ(fv_smc_read(kNotOpen, "F0Ac", &value), MACH_SEND_INVALID_DEST);
}

TEST_F(SMCCallsTest, OpensOnlyWhatCanBeOpened) {
    const std::uint32_t second = fv_smc_open();
    EXPECT_EQ(mac.ports(), (simulator::PortCounts{.services = 0, .connections = 2, .errors = 0}));
    fv_smc_close(second);
    fv_smc_close(0);
    EXPECT_EQ(mac.ports().connections, 1);
    mac.refuseOpening(kNotPrivileged, simulator::kOnce);
    EXPECT_EQ(fv_smc_open(), 0u);
}

// ---- The list of what may be written -----------------------------------------------------------

// A write over a connection that is not open: -3 when the shim itself refuses the key, and the
// kernel's complaint when it would have been sent.
int attemptWrite(const std::string& key) {
    static const FVValue value{1, 0, {}};
    return fv_smc_write(kNotOpen, key.c_str(), &value);
}

TEST(WriteListTest, AdmitsExactlyModeAndTargetOfTenFansAndTheMask) {
    std::set<std::string> writable{"FS! "}, admitted;
    for (char fan = '0'; fan <= '9'; ++fan) {
        for (const char* suffix : {"Md", "md", "Tg"}) {
            writable.insert(std::string{'F', fan} + suffix);
        }
    }
    // Every key of four printable characters, some 81 million.
    for (std::string key(4, ' '); key[0] <= '~';) {
        if (attemptWrite(key) != -3) {
            admitted.insert(key);
        }
        for (std::size_t place = 3; ++key[place] > '~' && place > 0; --place) {
            key[place] = ' ';
        }
    }
    EXPECT_EQ(admitted, writable);
    for (const std::string& key : writable) {
        EXPECT_EQ(attemptWrite(key), MACH_SEND_INVALID_DEST) << key;
        // One character away, at each place and over every byte there is.
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
