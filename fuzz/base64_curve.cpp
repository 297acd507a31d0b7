// A fan curve as a command's argument: JSON in base64. The input is tried as it stands, and as the
// JSON that somebody has encoded.
#include "core/model/base64.h"
#include "fuzz/json_properties.h"

using namespace ferovane;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text = fuzzing::Input(data, size).rest();
    for (const auto& json : {std::optional(std::string(text)), decodeBase64(text)}) {
        const auto curve = json ? fuzzing::decodeChecked<FanCurve>(*json) : std::nullopt;
        if (curve && fuzzing::admits([&] { curve->validate(); })) {
            fuzzing::checkAdmittedCurve(*curve);
        }
    }
    return 0;
}
