#include "simulator/machine/value_codec.h"

#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "simulator/machine/four_characters.h"

namespace {

using namespace simulator;

constexpr auto kBig = IntegerOrder::kBigEndian;
constexpr auto kLittle = IntegerOrder::kLittleEndian;

struct Case {
    const char* type;
    IntegerOrder order;
    std::vector<std::uint8_t> bytes;
    double number;
};

// Bytes as real machines returned them.
const Case kCases[] = {
    {"fpe2", kBig, {0x21, 0xB4}, 2157},
    {"fp79", kBig, {0x2E, 0xE0}, 23.4375},
    {"sp78", kBig, {0x81, 0x00}, -127},
    {"sp78", kBig, {0xFF, 0x80}, -0.5},
    {"spf0", kLittle, {0x17, 0x53}, 5971},
    {"sp87", kBig, {0x0B, 0x0B}, 2827.0 / 128},
    {"flt ", kBig, {0x00, 0x80, 0xE5, 0x44}, 1836},
    {"ui8", kBig, {0x02}, 2},
    {"ui16", kBig, {0x2C, 0x5E}, 11358},
    {"ui16", kLittle, {0x2C, 0x5E}, 24108},
    {"si16", kBig, {0xFD, 0x9C}, -612},
    {"ui32", kBig, {0x00, 0x00, 0x02, 0xCF}, 719},
    {"ioft", kBig, {0x00, 0x80, 0xEA, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, -21.5},
    {"flag", kBig, {0x01}, 1},
};

TEST(ValueCodecTest, DecodesAndEncodesEveryTypeThatRealMachinesHave) {
    for (const Case& known : kCases) {
        const auto type = packed(known.type);
        const auto size = static_cast<std::uint32_t>(known.bytes.size());
        const auto number = decodedNumber(type, size, known.bytes.data(), known.order);
        EXPECT_EQ(number, known.number) << known.type;
        std::vector<std::uint8_t> bytes(size);
        EXPECT_TRUE(encodeNumber(type, size, known.number, known.order, bytes.data()));
        EXPECT_EQ(bytes, known.bytes) << known.type;
    }
}

TEST(ValueCodecTest, TakesANulForTheBlankOfAType) {
    const std::uint8_t byte = 7;
    EXPECT_EQ(decodedNumber(packed(std::string_view("ui8\0", 4)), 1, &byte, kBig), 7);
}

TEST(ValueCodecTest, RefusesWhatHoldsNoNumber) {
    const std::array<std::uint8_t, 8> bytes = {};
    struct {
        const char* type;
        std::uint32_t size;
    } const cases[] = {{"ch8*", 4}, {"hex_", 4}, {"{fds", 8}, {"ui16", 4},
                       {"fp7a", 2}, {"sp79", 2}, {"flt ", 8}, {"gp78", 2}};
    for (const auto& wanted : cases) {
        EXPECT_FALSE(decodedNumber(packed(wanted.type), wanted.size, bytes.data(), kBig))
            << wanted.type << wanted.size;
    }
}

TEST(ValueCodecTest, StopsAtTheLimitsOfAType) {
    std::array<std::uint8_t, 8> bytes = {};
    const auto stored = [&bytes](const char* type, std::uint32_t size, double number) {
        EXPECT_TRUE(encodeNumber(packed(type), size, number, kBig, bytes.data()));
        return decodedNumber(packed(type), size, bytes.data(), kBig);
    };
    EXPECT_EQ(stored("ui8", 1, 300), 255);
    EXPECT_EQ(stored("ui8", 1, -1), 0);
    EXPECT_EQ(stored("si16", 2, -1e9), -32768);
    EXPECT_EQ(stored("fpe2", 2, 1e9), 16383.75);
    EXPECT_EQ(stored("ui64", 8, 1e30), 18446744073709551616.0);
}

}  // namespace
