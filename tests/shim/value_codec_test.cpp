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

FVValue valueOf(const std::string& type, std::uint32_t size, const Bytes& bytes) {
    FVValue value{};
    value.data_size = size;
    for (const char character : type) {
        value.data_type = value.data_type << 8 | static_cast<unsigned char>(character);
    }
    for (std::size_t index = 0; index < bytes.size(); ++index) {
        value.data[index] = bytes[index];
    }
    return value;
}

FVValue valueOf(const std::string& type, const Bytes& bytes) {
    return valueOf(type, static_cast<std::uint32_t>(bytes.size()), bytes);
}

Bytes dataOf(const FVValue& value) {
    return Bytes(std::begin(value.data), std::begin(value.data) + value.data_size);
}

TEST(ValueCodecTest, DecodesEveryTypeFromItsBytes) {
    struct Case {
        const char* type;
        Bytes bytes;
        double number;
    };
    const Case cases[] = {
        {"fpe2", {0x1F, 0x40}, 2000.0},
        {"fpe2", {0xFF, 0xFF}, 16383.75},
        {"fp88", {0x80, 0x01}, 128.00390625},
        {"fp79", {0x2E, 0xCD}, 23.400390625},
        {"fp1f", {0x80, 0x00}, 1.0},
        {"fpf1", {0xFF, 0xFF}, 32767.5},
        {"sp78", {0xFF, 0x80}, -0.5},
        {"sp78", {0x7F, 0xFF}, 127.99609375},
        {"sp78", {0x80, 0x00}, -128.0},
        {"spf0", {0x80, 0x00}, -32768.0},
        {"sp0f", {0x80, 0x00}, -1.0},
        {"ui8 ", {0xFF}, 255.0},
        {"ui16", {0x01, 0x02}, 258.0},
        {"ui32", {0x00, 0x00, 0x02, 0xCF}, 719.0},
        {"ui32", {0xFF, 0xFF, 0xFF, 0xFF}, 4294967295.0},
        {"flt ", {0x00, 0x50, 0x9A, 0x45}, 4938.0},
        {"flt ", {0x00, 0x00, 0x80, 0xBF}, -1.0},
        {"flt ", {0x00, 0x00, 0x80, 0x7F}, kInfinity},
    };
    for (const Case& item : cases) {
        const FVValue value = valueOf(item.type, item.bytes);
        EXPECT_EQ(fv_decode(&value), item.number) << item.type << " " << item.number;
    }
}

TEST(ValueCodecTest, RefusesTypesAndSizesItDoesNotKnow) {
    struct Case {
        std::string type;
        std::uint32_t size;
    };
    const Case cases[] = {
        {"fpe2", 1}, {"fpe2", 3}, {"fpe2", 0}, {"sp78", 4}, {"fpE2", 2}, {"fpg0", 2}, {"fp2:", 2},
        {"FPE2", 2}, {"up88", 2}, {"fqe2", 2}, {"ui8 ", 2}, {"ui16", 1}, {"ui16", 4}, {"ui32", 2},
        {"ui64", 8}, {"flt ", 2}, {"flt ", 8}, {"ioft", 8}, {"si16", 2}, {"flag", 1}, {"", 1},
    };
    for (const Case& item : cases) {
        const FVValue value = valueOf(item.type, item.size, Bytes(8, 0x40));
        EXPECT_TRUE(std::isnan(fv_decode(&value))) << item.type << "/" << item.size;
    }
    const FVValue endsInNul = valueOf(std::string("ui8\0", 4), {0x40});
    EXPECT_TRUE(std::isnan(fv_decode(&endsInNul)));
    EXPECT_TRUE(std::isnan(fv_decode(nullptr)));
    const FVValue notANumber = valueOf("flt ", {0x00, 0x00, 0xC0, 0x7F});
    EXPECT_TRUE(std::isnan(fv_decode(&notANumber)));
}

TEST(ValueCodecTest, FixedPointNeedsBitsThatFillTheWord) {
    const std::string digits = "0123456789abcdef";
    for (int integer = 0; integer < 16; ++integer) {
        for (int fraction = 0; fraction < 16; ++fraction) {
            const std::string suffix{'p', digits[static_cast<std::size_t>(integer)],
                                     digits[static_cast<std::size_t>(fraction)]};
            const FVValue plain = valueOf("f" + suffix, {0x00, 0x01});
            const FVValue withSign = valueOf("s" + suffix, {0xFF, 0xFF});
            const double step = std::exp2(-fraction);
            EXPECT_EQ(fv_decode(&plain) == step, integer + fraction == 16) << suffix;
            EXPECT_EQ(fv_decode(&withSign) == -step, integer + fraction == 15) << suffix;
        }
    }
}

TEST(ValueCodecTest, EncodesToExactBytes) {
    struct Case {
        const char* type;
        double number;
        Bytes bytes;
    };
    const Case cases[] = {
        {"fpe2", 2000.0, {0x1F, 0x40}},
        {"fpe2", 0.0, {0x00, 0x00}},
        {"fpe2", -0.0, {0x00, 0x00}},
        {"fpe2", 0.124, {0x00, 0x00}},
        {"fpe2", 0.125, {0x00, 0x01}},  // half a quarter: away from zero
        {"fpe2", 0.375, {0x00, 0x02}},
        {"fpe2", 16383.75, {0xFF, 0xFF}},
        {"flt ", 4938.0, {0x00, 0x50, 0x9A, 0x45}},
        {"flt ", 20000.0, {0x00, 0x40, 0x9C, 0x46}},
        {"ui16", 2000.4, {0x07, 0xD0}},
        {"ui16", 2000.999, {0x07, 0xD0}},
        {"ui16", 65535.0, {0xFF, 0xFF}},
        {"ui8 ", 1.9, {0x01}},
        {"ui8 ", 255.0, {0xFF}},
    };
    for (const Case& item : cases) {
        FVValue value = valueOf(item.type, Bytes(item.bytes.size(), 0xAA));
        EXPECT_EQ(fv_encode(&value, item.number), 0) << item.type << " " << item.number;
        EXPECT_EQ(dataOf(value), item.bytes) << item.type << " " << item.number;
    }
}

TEST(ValueCodecTest, RefusedNumbersLeaveTheValueAlone) {
    struct Case {
        const char* type;
        std::uint32_t size;
        double number;
        int result;
    };
    const Case cases[] = {
        {"fpe2", 2, -1.0, -1},      {"ui8 ", 1, -1e-300, -1},      {"flt ", 4, kNan, -1},
        {"flt ", 4, kInfinity, -1}, {"ui16", 2, -kInfinity, -1},   {"none", 9, -1.0, -1},
        {"fpe2", 2, 16383.76, -2},  {"flt ", 4, 20000.000001, -2}, {"ui16", 2, 65535.5, -2},
        {"ui8 ", 1, 255.1, -2},     {"fpe2", 4, 1.0, -2},          {"flt ", 2, 1.0, -2},
        {"ui16", 1, 1.0, -2},       {"ui8 ", 2, 1.0, -2},          {"ui32", 4, 1.0, -2},
        {"sp78", 2, 1.0, -2},       {"fp88", 2, 1.0, -2},          {"flag", 1, 1.0, -2},
    };
    for (const Case& item : cases) {
        FVValue value = valueOf(item.type, item.size, Bytes(32, 0xAA));
        EXPECT_EQ(fv_encode(&value, item.number), item.result) << item.type << " " << item.number;
        EXPECT_EQ(Bytes(std::begin(value.data), std::end(value.data)), Bytes(32, 0xAA));
    }
    EXPECT_EQ(fv_encode(nullptr, 1.0), -1);
}

}  // namespace
