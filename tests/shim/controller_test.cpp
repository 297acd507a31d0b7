// The controller: its calls, its typed values, and what may be written.
#include <gtest/gtest.h>
#include <mach/mach.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <numeric>
#include <set>
#include <string>
#include <vector>

#include "shim/fv.h"
#include "simulator/machine/value_codec.h"
#include "tests/shim/attached_mac_test.h"

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr std::uint32_t kNotOpen = 4711;  // no connection of ours ever has this number

class ControllerTest : public tests::AttachedMacTest {
protected:
    ControllerTest() : AttachedMacTest(simulator::intelMac(2)) {}
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

TEST_F(ControllerTest, ReadsWritesAndNamesExactly) {
    std::vector<std::uint8_t> bytes(FV_SMC_DATA_SIZE);
    std::iota(bytes.begin(), bytes.end(), std::uint8_t{240});
    mac.setKey("ABCD", "ch8*", bytes);
    mac.addTemperatureKeys(300);  // more than one byte counts
    mac.clearCalls();
    FVValue value{};
    ASSERT_EQ(fv_smc_read(connection, "ABCD", &value), 0);
    EXPECT_EQ(value.data_size, 32U);
    EXPECT_EQ(value.data_type, 0x6368382AU);
    EXPECT_TRUE(std::ranges::equal(value.data, bytes));
    ASSERT_EQ(fv_smc_read(connection, "F1Tg", &value), 0);
    ASSERT_EQ(fv_encode(&value, 3210.0), 0);
    EXPECT_EQ(fv_smc_write(connection, "F1Tg", &value), 0);
    EXPECT_EQ(mac.writes(), "F1Tg=3210");
    EXPECT_EQ(mac.calls(), (simulator::CallCounts{.reads = 2, .writes = 1, .keyInfos = 2}));
    value.data_size = 3;
    EXPECT_EQ(fv_smc_write(connection, "F1Tg", &value), simulator::kSizeMismatch);

    std::set<std::string> names;
    for (std::uint32_t index = 0; index < mac.keyCount(); ++index) {
        char key[FV_SMC_KEY_TEXT_SIZE] = {'x', 'x', 'x', 'x', 'x'};
        ASSERT_EQ(fv_smc_key_at_index(connection, index, key), 0) << index;
        EXPECT_TRUE(mac.hasKey(key)) << key;
        names.insert(key);
    }
    EXPECT_EQ(names.size(), mac.keyCount());
}

TEST_F(ControllerTest, BadArgumentsNeverReachIt) {
    mac.clearCalls();
    FVValue one{1, 0, {}}, read{};
    const auto refuses = [&](std::uint32_t to, const char* key, FVValue* value) {
        EXPECT_EQ(fv_smc_read(to, key, value == nullptr ? nullptr : &read), -1);
        EXPECT_EQ(fv_smc_write(to, key, value), -1);
    };
    for (const char* key : {"", "F0M", "F0Md ", "F0Md\n", static_cast<const char*>(nullptr)}) {
        refuses(connection, key, &one);
    }
    refuses(connection, "F0Md", nullptr);
    refuses(0, "F0Md", &one);
    char text[FV_SMC_KEY_TEXT_SIZE];
    EXPECT_EQ(fv_smc_key_at_index(0, 0, text), -1);
    EXPECT_EQ(fv_smc_key_at_index(connection, 0, nullptr), -1);
    for (const std::uint32_t size : {0U, 33U, 0xFFFFFFFFU}) {
        one.data_size = size;
        EXPECT_EQ(fv_smc_write(connection, "F0Md", &one), -1) << size;
    }
    EXPECT_EQ(mac.calls().total(), 0U);
    for (const std::uint32_t size : {0U, 33U, 0xFFFFFFFFU}) {
        mac.setKeySize("F0Md", size);
        EXPECT_EQ(codes()[0], -2) << size;
    }
    EXPECT_EQ(mac.calls().reads, 0U);
}

TEST_F(ControllerTest, PassesEveryCodeThroughUnchanged) {
    constexpr int kNotPrivileged = -536870207, kNotResponding = -536870163;
    EXPECT_EQ(codes("ZZZZ")[0], simulator::kKeyNotFound);
    for (const int code : {1, 0x82, 255, kNotPrivileged, kNotResponding}) {
        mac.refuseCalls(code);
        EXPECT_EQ(codes(), (std::vector{code, code, code}));
        mac.clearFaults();
        mac.atCall(2).refuseReads("F0Md", code, simulator::kOnce);  // the second of its two calls
        EXPECT_EQ(codes(), (std::vector{code, 0, 0}));
    }
    for (const std::size_t size : {0U, 79U, 81U}) {
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

    const std::uint32_t second = fv_smc_open();
    EXPECT_EQ(mac.ports(), (simulator::PortCounts{.services = 0, .connections = 2, .errors = 0}));
    fv_smc_close(second);
    fv_smc_close(0);
    EXPECT_EQ(mac.ports().connections, 1);
    mac.refuseOpening(kNotPrivileged, simulator::kOnce);
    EXPECT_EQ(fv_smc_open(), 0U);
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
    // Every key of four printable characters that begins like a fan's, some 857 000.
    for (std::string key = "F   "; key[0] == 'F';) {
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

// ---- Typed values ------------------------------------------------------------------------------

double largestWritable(const std::string& form) {
    return form == "fpe2/2"   ? 16383.75
           : form == "flt /4" ? 20000
           : form == "ui16/2" ? 65535
           : form == "ui8 /1" ? 255
                              : -1;
}

// The simulated controller's codec was written from the other side. It knows more types, rounds
// and bounds differently.
TEST(ValueCodecTest, DecodesAndEncodesWhatFansAndSensorsHave) {
    std::vector<std::string> known{"ui8 ", "ui16", "ui32", "flt "},
        types{"FPE2", "up88", "fqe2", "", "si8 ", "si16", "flag", "ui64", "ioft", {"ui8\0", 4}};
    // Every pair of bits, and characters beside the digits; only what fills the word counts.
    const std::string digits = "0123456789abcdefg/:`AF";
    for (const char integer : digits) {
        for (const char fraction : digits) {
            known.push_back({'f', 'p', integer, fraction});
            known.push_back({'s', 'p', integer, fraction});
        }
    }
    types.insert(types.end(), known.begin(), known.end());
    const std::vector<std::uint8_t> contents[] = {
        {0x1F, 0x40}, {0xFF, 0xFF, 0xFF, 0xFF}, {0x7F, 0xFF}, {0x00, 0x50, 0x9A, 0x45},
        {0, 1},       {0, 0, 0x80, 0xBF},       {1, 2, 3, 4}, {0, 0, 0x80, 0x7F}};
    const auto decoded = [](const FVValue& value) {
        return simulator::decodedNumber(value.data_type, value.data_size, value.data,
                                        simulator::IntegerOrder::kBigEndian);
    };
    for (const std::string& type : types) {
        const bool isKnown = std::ranges::count(known, type) > 0;
        for (const std::uint32_t size : {0U, 1U, 2U, 3U, 4U, 8U}) {
            FVValue value{size, 0, {}};
            for (const char character : type) {
                value.data_type = value.data_type << 8 | static_cast<unsigned char>(character);
            }
            const std::string form = type + "/" + std::to_string(size);
            for (const auto& bytes : contents) {
                std::copy(bytes.begin(), bytes.end(), value.data);
                const double expected = isKnown ? decoded(value).value_or(kNaN) : kNaN;
                EXPECT_TRUE(fv_decode(&value) == expected ||
                            (std::isnan(fv_decode(&value)) && std::isnan(expected)))
                    << form;
            }
            const double most = largestWritable(form);
            for (const double number :
                 {0.0, -0.0, 0.124, 0.125, 1.9, 255.0, 255.1, 2000.999, 4938.0, 16383.75, 16383.76,
                  20000.0, 20000.000001, 65535.0, 65535.5, -1.0, -1e-300, kNaN, double{HUGE_VAL}}) {
                FVValue written = value;
                const bool usable = number >= 0 && std::isfinite(number);
                const int code = !usable ? -1 : number > most ? -2 : 0;
                ASSERT_EQ(fv_encode(&written, number), code) << form << " " << number;
                // A quarter is rounded, half of one away from zero; a whole number drops the rest.
                const double stored = type == "fpe2"   ? std::round(number * 4) / 4
                                      : type == "flt " ? static_cast<float>(number)
                                                       : std::floor(number);
                EXPECT_TRUE(code != 0 || decoded(written) == stored) << form << " " << number;
                const std::size_t changed = code == 0 ? size : 0;
                EXPECT_TRUE(std::equal(written.data + changed, std::end(written.data),
                                       value.data + changed))
                    << form;
            }
        }
    }
    EXPECT_TRUE(std::isnan(fv_decode(nullptr)));
    EXPECT_EQ(fv_encode(nullptr, 1.0), -1);
}

}  // namespace
