// A fan curve as a command's argument: JSON in base64. The input is tried as it stands, and as the
// JSON that somebody has encoded.
#include "core/model/base64.h"
#include "fuzz/curve_properties.h"
#include "fuzz/input.h"
#include "fuzz/json_properties.h"

namespace {

using namespace ferovane;
using fuzzing::require;

// An encoder of its own.
std::string encodedBase64(std::string_view bytes) {
    constexpr std::string_view kAlphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
        const std::string_view group = bytes.substr(at, 3);
        std::uint32_t bits = 0;
        for (std::size_t i = 0; i < 3; ++i) {
            bits = bits << 8 | (i < group.size() ? static_cast<unsigned char>(group[i]) : 0U);
        }
        for (std::size_t i = 0; i < 4; ++i) {
            text += i <= group.size() ? kAlphabet[bits >> (18 - 6 * i) & 63] : '=';
        }
    }
    return text;
}

void checkCurve(std::string_view json) {
    const auto curve = fuzzing::decodeChecked<FanCurve>(json);
    if (!curve) {
        return;
    }
    try {
        curve->validate();
    } catch (const ScopeError& error) {
        fuzzing::checkRefusal(error);
        return;
    }
    fuzzing::checkAdmittedCurve(*curve);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text = fuzzing::textOf(data, size);
    if (const auto bytes = decodeBase64(text)) {
        require(encodedBase64(*bytes) == text, "only what an encoder writes is accepted");
        checkCurve(*bytes);
    }
    require(decodeBase64(encodedBase64(text)) == text, "whatever is encoded is decoded");
    checkCurve(text);
    return 0;
}
