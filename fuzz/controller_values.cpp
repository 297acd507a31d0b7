// One typed value of the controller, and one number to be written in its type.
//
// The input: type and size of the value, its 32 bytes, the number.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <string_view>

#include "fuzz/property.h"
#include "shim/fv.h"
#include "simulator/machine/four_characters.h"
#include "simulator/machine/value_codec.h"

namespace {

using namespace ferovane;
using fuzzing::require;
using simulator::packed;

constexpr std::array<std::string_view, 16> kTypes{"fpe2", "flt ", "ui8 ", "ui16", "ui32", "fp79",
                                                  "fp88", "sp78", "sp1e", "spf0", "si8 ", "si16",
                                                  "ioft", "flag", "ch8*", "{fds"};

// Often a type that controllers have, else any four characters.
std::uint32_t typeFrom(fuzzing::Input& input) {
    const auto choice = input.byte();
    const auto raw = input.take<std::uint32_t>();
    return choice < 2 * kTypes.size() ? packed(kTypes[choice % kTypes.size()]) : raw;
}

FVValue valueFrom(fuzzing::Input& input) {
    FVValue value{};
    value.data_type = typeFrom(input);
    const auto size = input.byte();
    value.data_size = size < 0xF0 ? size % 34U : size * 0x1010101U;  // also sizes that none has
    const std::string_view bytes = input.take(sizeof value.data);
    std::copy(bytes.begin(), bytes.end(), value.data);
    return value;
}

// The simulated controller has a codec of its own, written from the controllers' side.
void checkDecoded(const FVValue& value) {
    const double number = fv_decode(&value);
    if (std::isnan(number)) {
        return;
    }
    const auto known = simulator::decodedNumber(value.data_type, value.data_size, value.data,
                                                simulator::IntegerOrder::kBigEndian);
    require(known == number, "both codecs decode a value to the same number");
}

// The distance within which a type holds a number.
double stepOf(const FVValue& value, double number) {
    switch (value.data_type) {
        case packed("fpe2"):
            return 0.125;
        case packed("flt "):
            return std::max(std::ldexp(number, -24), std::ldexp(1.0, -150));
        default:
            return std::nextafter(1.0, 0.0);  // whole numbers drop the fraction
    }
}

void checkEncoded(FVValue value, double number) {
    const FVValue before = value;
    const int code = fv_encode(&value, number);
    require(value.data_type == before.data_type && value.data_size == before.data_size,
            "encoding leaves type and size alone");
    const std::size_t changeable = code == 0 ? value.data_size : 0;
    require(changeable <= sizeof value.data &&
                std::equal(value.data + changeable, std::end(value.data), before.data + changeable),
            "encoding changes the value's own bytes only, and none when it refuses");
    if (!(number >= 0) || std::isinf(number)) {
        require(code == -1, "what is no usable number is refused");
        return;
    }
    require(code == 0 || code == -2, "a number is encoded, or refused for type or range");
    if (code == 0) {
        const double stored = fv_decode(&value);
        require(std::fabs(stored - number) <= stepOf(value, number),
                "an encoded number decodes to within the type's step");
        require(stored >= 0, "no encoded number is negative");
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzing::Input input(data, size);
    const FVValue value = valueFrom(input);
    checkDecoded(value);
    checkEncoded(value, input.take<double>());
    checkEncoded(value, input.take<std::uint32_t>() / 16.0);  // near the speeds that fans have
    return 0;
}
