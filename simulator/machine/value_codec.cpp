#include "simulator/machine/value_codec.h"

#include <algorithm>
#include <bit>
#include <cmath>

#include "simulator/machine/four_characters.h"

namespace simulator {
namespace {

enum class Form { kNone, kFloat, kInteger, kFixedPoint };

struct NumberType {
    Form form = Form::kNone;
    bool isSigned = false;
    bool bigEndian = true;
    std::uint32_t size = 0;
    int fractionBits = 0;
};

constexpr int kGaugeFractionBits = 16;  // "ioft": a signed 64-bit number of 1/65536

int hexDigit(char character) {
    if (isDigit(character)) {
        return character - '0';
    }
    return character >= 'a' && character <= 'f' ? character - 'a' + 10 : -1;
}

// "fpXY" has X + Y = 16, "spXY" has X + Y = 15 beside the sign.
NumberType fixedPoint(std::uint32_t type) {
    const char first = characterAt(type, 0);
    const int integerBits = hexDigit(characterAt(type, 2));
    const int fractionBits = hexDigit(characterAt(type, 3));
    if ((first != 'f' && first != 's') || characterAt(type, 1) != 'p' || integerBits < 0 ||
        fractionBits < 0 || integerBits + fractionBits != (first == 'f' ? 16 : 15)) {
        return {};
    }
    return {Form::kFixedPoint, first == 's', true, 2, fractionBits};
}

NumberType numberType(std::uint32_t type, IntegerOrder order) {
    if ((type & 0xFF) == 0) {
        type |= ' ';
    }
    const bool bigEndian = order == IntegerOrder::kBigEndian;
    switch (type) {
        case packed("flt "):
            return {Form::kFloat, true, false, 4, 0};
        case packed("ioft"):
            return {Form::kInteger, true, false, 8, kGaugeFractionBits};
        case packed("flag"):
        case packed("Flag"):
        case packed("ui8 "):
            return {Form::kInteger, false, bigEndian, 1, 0};
        case packed("ui16"):
            return {Form::kInteger, false, bigEndian, 2, 0};
        case packed("ui32"):
            return {Form::kInteger, false, bigEndian, 4, 0};
        case packed("ui64"):
            return {Form::kInteger, false, bigEndian, 8, 0};
        case packed("si8 "):
            return {Form::kInteger, true, bigEndian, 1, 0};
        case packed("si16"):
            return {Form::kInteger, true, bigEndian, 2, 0};
        case packed("si32"):
            return {Form::kInteger, true, bigEndian, 4, 0};
        default:
            return fixedPoint(type);
    }
}

std::uint64_t word(const NumberType& type, const std::uint8_t* bytes) {
    std::uint64_t bits = 0;
    for (std::uint32_t i = 0; i < type.size; ++i) {
        bits = bits << 8 | bytes[type.bigEndian ? i : type.size - 1 - i];
    }
    return bits;
}

void storeWord(const NumberType& type, std::uint64_t bits, std::uint8_t* bytes) {
    for (std::uint32_t i = 0; i < type.size; ++i) {
        bytes[type.bigEndian ? type.size - 1 - i : i] = static_cast<std::uint8_t>(bits);
        bits >>= 8;
    }
}

double scaled(const NumberType& type, std::uint64_t bits) {
    const int unusedBits = 64 - 8 * static_cast<int>(type.size);
    const double whole =
        type.isSigned
            ? static_cast<double>(static_cast<std::int64_t>(bits << unusedBits) >> unusedBits)
            : static_cast<double>(bits);
    return std::ldexp(whole, -type.fractionBits);
}

std::uint64_t nearestWord(const NumberType& type, double number) {
    const int bits = 8 * static_cast<int>(type.size) - (type.isSigned ? 1 : 0);
    const double limit = std::ldexp(1.0, bits);
    const double whole = std::round(std::ldexp(number, type.fractionBits));
    if (whole >= limit) {
        return bits == 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << bits) - 1;
    }
    if (type.isSigned) {
        return static_cast<std::uint64_t>(static_cast<std::int64_t>(std::max(whole, -limit)));
    }
    return static_cast<std::uint64_t>(std::max(whole, 0.0));
}

}  // namespace

std::optional<double> decodedNumber(std::uint32_t type, std::uint32_t size,
                                    const std::uint8_t* bytes, IntegerOrder order) {
    const NumberType known = numberType(type, order);
    if (known.form == Form::kNone || known.size != size) {
        return std::nullopt;
    }
    const std::uint64_t bits = word(known, bytes);
    if (known.form == Form::kFloat) {
        return std::bit_cast<float>(static_cast<std::uint32_t>(bits));
    }
    return scaled(known, bits);
}

bool encodeNumber(std::uint32_t type, std::uint32_t size, double number, IntegerOrder order,
                  std::uint8_t* bytes) {
    const NumberType known = numberType(type, order);
    if (known.form == Form::kNone || known.size != size || std::isnan(number)) {
        return false;
    }
    if (known.form == Form::kFloat) {
        storeWord(known, std::bit_cast<std::uint32_t>(static_cast<float>(number)), bytes);
    } else {
        storeWord(known, nearestWord(known, number), bytes);
    }
    return true;
}

}  // namespace simulator
