// A sample of the machine as the helper prints it and a monitor reads it.
#include "core/model/snapshot.h"

#include "fuzz/json_properties.h"

using namespace ferovane;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text = fuzzing::Input(data, size).rest();
    for (const JsonDates dates : {JsonDates::iso8601, JsonDates::secondsSinceReference}) {
        if (const auto snapshot = fuzzing::decodeChecked<Snapshot>(text, dates)) {
            for (const auto words :
                 {snapshot->limitTitle(), snapshot->thermalTitle(), snapshot->assessment()}) {
                fuzzing::require(!words.empty(), "every state has its words");
            }
        }
    }
    return 0;
}
