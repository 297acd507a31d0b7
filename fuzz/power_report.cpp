// The power tool's report.
#include <string>

#include "core/model/json_codec.h"
#include "core/power/power_configuration.h"
#include "fuzz/input.h"
#include "fuzz/property.h"

namespace {

using namespace ferovane;
using fuzzing::require;

constexpr std::int64_t kSleepMinutes = 7;

std::string report(const PowerConfiguration& configuration) {
    std::string text;
    for (const auto& [source, settings] : configuration.profiles) {
        text += source == PowerSource::ac ? "AC Power:\n" : "Battery Power:\n";
        for (const auto& [setting, value] : settings) {
            text.append(" ").append(rawValue(setting)).append("\t");
            text.append(std::to_string(value)).append("  (a remark)\n");
        }
    }
    return text;
}

void checkValues(const PowerConfiguration& configuration) {
    for (const auto& [source, settings] : configuration.profiles) {
        for (const auto& [setting, value] : settings) {
            require(valid(setting, value), "every setting is in its range");
            require(configuration.value(setting, source) == value,
                    "every setting can be asked for");
        }
    }
}

void checkJourneys(const PowerConfiguration& configuration) {
    require(PowerConfiguration::parse(report(configuration)) == configuration,
            "a report made of what was understood is understood alike");
    require(decodeJson<PowerConfiguration>(encodeJson(configuration)) == configuration,
            "what was understood survives as JSON");
}

std::string withCarriageReturns(std::string_view text) {
    std::string changed;
    for (const char c : text) {
        changed += c == '\n' ? std::string("\r\n") : std::string(1, c);
    }
    return changed;
}

// What a change of the report, whose effect is known, changes.
void checkChanged(const std::string& text, const PowerConfiguration& configuration) {
    require(PowerConfiguration::parse(withCarriageReturns(text)) == configuration,
            "line ends make no difference");
    require(PowerConfiguration::parse(text + "\nUPS Power:\n sleep 1\n lowpowermode 1\n") ==
                configuration,
            "another source's section changes nothing");

    const std::string line = "\nAC Power:\n sleep " + std::to_string(kSleepMinutes) + "\n";
    const auto before = configuration.value(PowerSetting::systemSleep, PowerSource::ac);
    const auto after =
        PowerConfiguration::parse(text + line).value(PowerSetting::systemSleep, PowerSource::ac);
    require(before ? !after : !after || after == kSleepMinutes,
            "a setting listed twice is not readable");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(fuzzing::textOf(data, size));
    const PowerConfiguration configuration = PowerConfiguration::parse(text);
    checkValues(configuration);
    constexpr std::size_t kFurtherShare = 4;  // five times the work of the parsing
    if (fuzzing::sampled(text, kFurtherShare)) {
        checkJourneys(configuration);
        checkChanged(text, configuration);
    }
    return 0;
}
