// A sample of the machine as the helper prints it and a monitor reads it.
#include <cmath>

#include "core/model/snapshot.h"
#include "fuzz/input.h"
#include "fuzz/json_properties.h"

namespace {

using namespace ferovane;
using fuzzing::require;

void checkQuestions(const Snapshot& snapshot) {
    for (const auto& category : RawEnum<SensorCategory>::cases) {
        const auto celsius = snapshot.temperature(category.value);
        require(!celsius || std::isfinite(*celsius), "a temperature is a finite number");
    }
    for (const auto text :
         {snapshot.limitTitle(), snapshot.thermalTitle(), snapshot.assessment()}) {
        require(!text.empty(), "every state has its words");
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text = fuzzing::textOf(data, size);
    const auto check = [text](JsonDates dates) {
        if (const auto snapshot = fuzzing::decodeChecked<Snapshot>(text, dates)) {
            checkQuestions(*snapshot);
        }
    };
    check(JsonDates::iso8601);
    constexpr std::size_t kOtherDatesShare = 4;
    if (fuzzing::sampled(text, kOtherDatesShare)) {
        check(JsonDates::secondsSinceReference);
    }
    return 0;
}
