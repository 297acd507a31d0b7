#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "shim/fv.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

FVValue valueOf(const std::string& type, std::size_t size, const Bytes& bytes) {
    FVValue value{};
    value.data_size = static_cast<std::uint32_t>(size);
    for (const char character : type) {
        value.data_type = value.data_type << 8 | static_cast<unsigned char>(character);
    }
    std::copy(bytes.begin(), bytes.end(), value.data);
    return value;
}

TEST(ValueCodecTest, Decodes) {
    const struct {
        std::string type;
        Bytes bytes;
        double number;
    } cases[] = {
        {"fpe2", {0x1F, 0x40}, 2000.0},
        {"fpe2", {0xFF, 0xFF}, 16383.75},
        {"fp88", {0x80, 0x01}, 128.00390625},
        {"sp78", {0xFF, 0x80}, -0.5},
        {"sp78", {0x7F, 0xFF}, 127.99609375},
        {"sp78", {0x80, 0x00}, -128.0},
        {"ui8 ", {0xFF}, 255.0},
        {"ui16", {0x01, 0x02}, 258.0},
        {"ui32", {0x01, 0x02, 0x03, 0x04}, 16909060.0},
        {"ui32", {0xFF, 0xFF, 0xFF, 0xFF}, 4294967295.0},
        {"flt ", {0x00, 0x50, 0x9A, 0x45}, 4938.0},
        {"flt ", {0x00, 0x00, 0x80, 0xBF}, -1.0},
        {"flt ", {0x00, 0x00, 0x80, 0x7F}, kInfinity},
    };
    for (const auto& c : cases) {
        const FVValue value = valueOf(c.type, c.bytes.size(), c.bytes);
        EXPECT_EQ(fv_decode(&value), c.number) << c.type;
        for (const std::size_t other : {0U, 1U, 2U, 3U, 4U, 8U}) {
            const FVValue wrong = valueOf(c.type, other, c.bytes);
            EXPECT_EQ(std::isnan(fv_decode(&wrong)), other != c.bytes.size()) << c.type << other;
        }
    }
    // Every pair of bits, and characters beside the digits; only what fills the word counts.
    for (const char integer : std::string("0123456789abcdefg/:`AF")) {
        for (const char fraction : std::string("0123456789abcdefg/:`AF")) {
            const auto bits = [](char digit) {
                const auto place = std::string("0123456789abcdef").find(digit);
                return place == std::string::npos ? 99 : static_cast<int>(place);
            };
            const std::string suffix{'p', integer, fraction};
            const FVValue plain = valueOf("f" + suffix, 2, {0x00, 0x01});
            const FVValue withSign = valueOf("s" + suffix, 2, {0xFF, 0xFF});
            const double step = std::exp2(-bits(fraction));
            const int sum = bits(integer) + bits(fraction);
            EXPECT_EQ(fv_decode(&plain) == step, sum == 16) << suffix;
            EXPECT_EQ(fv_decode(&withSign) == -step, sum == 15) << suffix;
            EXPECT_EQ(std::isnan(fv_decode(&plain)), sum != 16) << suffix;
        }
    }
    for (const std::string type : {"FPE2", "up88", "fqe2", "si16", "flag", "", "ui64", "ioft"}) {
        for (const std::size_t size : {1U, 2U, 4U, 8U}) {
            const FVValue value = valueOf(type, size, Bytes(8, 0x40));
            EXPECT_TRUE(std::isnan(fv_decode(&value))) << type;
        }
    }
    const FVValue endsInNul = valueOf(std::string("ui8\0", 4), 1, {0x40});
    EXPECT_TRUE(std::isnan(fv_decode(&endsInNul)));
    EXPECT_TRUE(std::isnan(fv_decode(nullptr)));
}

TEST(ValueCodecTest, EncodesOrLeavesTheValueAlone) {
    const Bytes untouched{0xAA, 0xAA, 0xAA, 0xAA};
    const struct {
        std::string type;
        std::size_t size;
        double number;
        int result;
        Bytes bytes;
    } cases[] = {
        {"fpe2", 2, 2000.0, 0, {0x1F, 0x40}},
        {"fpe2", 2, -0.0, 0, {0x00, 0x00}},
        {"fpe2", 2, 0.124, 0, {0x00, 0x00}},
        {"fpe2", 2, 0.125, 0, {0x00, 0x01}},  // half a quarter: away from zero
        {"fpe2", 2, 16383.75, 0, {0xFF, 0xFF}},
        {"flt ", 4, 4938.0, 0, {0x00, 0x50, 0x9A, 0x45}},
        {"flt ", 4, 20000.0, 0, {0x00, 0x40, 0x9C, 0x46}},
        {"ui16", 2, 2000.999, 0, {0x07, 0xD0}},
        {"ui16", 2, 65535.0, 0, {0xFF, 0xFF}},
        {"ui8 ", 1, 1.9, 0, {0x01}},
        {"ui8 ", 1, 255.0, 0, {0xFF}},
        {"fpe2", 2, 16383.76, -2, {}},
        {"flt ", 4, 20000.000001, -2, {}},
        {"ui16", 2, 65535.5, -2, {}},
        {"ui8 ", 1, 255.1, -2, {}},
        {"fpe2", 4, 1.0, -2, {}},
        {"flt ", 2, 1.0, -2, {}},
        {"ui16", 1, 1.0, -2, {}},
        {"ui8 ", 2, 1.0, -2, {}},
        {"ui32", 4, 1.0, -2, {}},
        {"sp78", 2, 1.0, -2, {}},
        {"fp88", 2, 1.0, -2, {}},
        {"flag", 1, 1.0, -2, {}},
        {"fpe2", 2, -1.0, -1, {}},
        {"ui8 ", 1, -1e-300, -1, {}},
        {"flt ", 4, kNan, -1, {}},
        {"flt ", 4, kInfinity, -1, {}},
        {"none", 9, -1.0, -1, {}},
    };
    for (const auto& c : cases) {
        FVValue value = valueOf(c.type, c.size, untouched);
        EXPECT_EQ(fv_encode(&value, c.number), c.result) << c.type << " " << c.number;
        Bytes expected = c.bytes;
        expected.insert(expected.end(), untouched.begin() + std::ssize(c.bytes), untouched.end());
        EXPECT_EQ(Bytes(value.data, value.data + 4), expected) << c.type << " " << c.number;
    }
    EXPECT_EQ(fv_encode(nullptr, 1.0), -1);
}

}  // namespace
