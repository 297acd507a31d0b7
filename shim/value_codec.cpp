#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>

#include "shim/fv.h"

namespace {

constexpr double kUndecodable = std::numeric_limits<double>::quiet_NaN();

constexpr std::uint32_t typeCode(const char (&text)[5]) {
    std::uint32_t code = 0;
    for (int index = 0; index < 4; ++index) {
        code = code << 8 | static_cast<unsigned char>(text[index]);
    }
    return code;
}

constexpr std::uint32_t kFpe2 = typeCode("fpe2");
constexpr std::uint32_t kFloat = typeCode("flt ");
constexpr std::uint32_t kUnsigned8 = typeCode("ui8 ");
constexpr std::uint32_t kUnsigned16 = typeCode("ui16");
constexpr std::uint32_t kUnsigned32 = typeCode("ui32");

// The largest numbers ever sent. An fpe2 word holds 65535 quarters; a float speed has no bound of
// its own, and no fan turns faster than 20000 revolutions per minute.
constexpr double kFpe2Maximum = 16383.75;
constexpr double kFloatMaximum = 20000.0;
constexpr double kUnsigned16Maximum = 65535.0;
constexpr double kUnsigned8Maximum = 255.0;

constexpr double kFpe2Scale = 4.0;

std::uint32_t bigEndian(const FVValue& value, int bytes) {
    std::uint32_t word = 0;
    for (int index = 0; index < bytes; ++index) {
        word = word << 8 | value.data[index];
    }
    return word;
}

// The one type the controller keeps in the processor's own order.
std::uint32_t littleEndian(const FVValue& value) {
    std::uint32_t word = 0;
    for (int index = 3; index >= 0; --index) {
        word = word << 8 | value.data[index];
    }
    return word;
}

std::optional<int> lowerHexDigit(std::uint32_t character) {
    if (character >= '0' && character <= '9') {
        return static_cast<int>(character - '0');
    }
    if (character >= 'a' && character <= 'f') {
        return static_cast<int>(character - 'a') + 10;
    }
    return std::nullopt;
}

struct FixedPoint {
    bool isSigned;
    int fractionBits;
};

// "fpXY" and "spXY": X integer and Y fraction bits that, with the sign, fill sixteen.
std::optional<FixedPoint> fixedPoint(std::uint32_t type) {
    const std::uint32_t family = type >> 24;
    const std::optional<int> integerBits = lowerHexDigit(type >> 8 & 0xFF);
    const std::optional<int> fractionBits = lowerHexDigit(type & 0xFF);
    if ((type >> 16 & 0xFF) != 'p' || !integerBits || !fractionBits) {
        return std::nullopt;
    }
    const int bits = *integerBits + *fractionBits;
    if (family == 'f' && bits == 16) {
        return FixedPoint{false, *fractionBits};
    }
    if (family == 's' && bits == 15) {
        return FixedPoint{true, *fractionBits};
    }
    return std::nullopt;
}

double decodeFixedPoint(const FVValue& value, FixedPoint format) {
    const auto word = static_cast<std::uint16_t>(bigEndian(value, 2));
    const double raw = format.isSigned ? static_cast<double>(static_cast<std::int16_t>(word))
                                       : static_cast<double>(word);
    return std::ldexp(raw, -format.fractionBits);
}

void storeBigEndian16(FVValue& value, std::uint32_t word) {
    value.data[0] = static_cast<std::uint8_t>(word >> 8);
    value.data[1] = static_cast<std::uint8_t>(word);
}

void storeFloat(FVValue& value, double number) {
    const auto bits = std::bit_cast<std::uint32_t>(static_cast<float>(number));
    for (int index = 0; index < 4; ++index) {
        value.data[index] = static_cast<std::uint8_t>(bits >> (8 * index));
    }
}

struct Encoding {
    std::uint32_t type;
    std::uint32_t size;
    double maximum;
    void (*store)(FVValue& value, double number);
};

constexpr Encoding kEncodings[] = {
    {kFpe2, 2, kFpe2Maximum,
     [](FVValue& value, double number) {
         storeBigEndian16(value, static_cast<std::uint32_t>(std::round(number * kFpe2Scale)));
     }},
    {kFloat, 4, kFloatMaximum, storeFloat},
    {kUnsigned16, 2, kUnsigned16Maximum,
     [](FVValue& value, double number) {
         storeBigEndian16(value, static_cast<std::uint32_t>(number));
     }},
    {kUnsigned8, 1, kUnsigned8Maximum,
     [](FVValue& value, double number) { value.data[0] = static_cast<std::uint8_t>(number); }},
};

}  // namespace

double fv_decode(const FVValue* value) {
    if (value == nullptr) {
        return kUndecodable;
    }
    const std::uint32_t type = value->data_type;
    const std::uint32_t size = value->data_size;
    if (const std::optional<FixedPoint> format = fixedPoint(type)) {
        return size == 2 ? decodeFixedPoint(*value, *format) : kUndecodable;
    }
    if (type == kUnsigned8 && size == 1) {
        return value->data[0];
    }
    if (type == kUnsigned16 && size == 2) {
        return bigEndian(*value, 2);
    }
    if (type == kUnsigned32 && size == 4) {
        return bigEndian(*value, 4);
    }
    if (type == kFloat && size == 4) {
        return std::bit_cast<float>(littleEndian(*value));
    }
    return kUndecodable;
}

int fv_encode(FVValue* value, double number) {
    if (value == nullptr || !std::isfinite(number) || number < 0.0) {
        return -1;
    }
    for (const Encoding& encoding : kEncodings) {
        if (value->data_type != encoding.type || value->data_size != encoding.size) {
            continue;
        }
        if (number > encoding.maximum) {
            return -2;
        }
        encoding.store(*value, number);
        return 0;
    }
    return -2;
}
