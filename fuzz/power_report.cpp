// The power tool's report.
#include <string>

#include "core/model/json_codec.h"
#include "core/power/power_configuration.h"
#include "fuzz/property.h"

using namespace ferovane;
using fuzzing::require;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(fuzzing::Input(data, size).rest());
    const PowerConfiguration configuration = PowerConfiguration::parse(text);
    std::string report, ended;
    for (const auto& [source, settings] : configuration.profiles) {
        report += source == PowerSource::ac ? "AC Power:\n" : "Battery Power:\n";
        for (const auto& [setting, value] : settings) {
            require(valid(setting, value), "every setting is in its range");
            report.append(" ").append(rawValue(setting)).append("\t");
            report.append(std::to_string(value)).append("  (a remark)\n");
        }
    }
    for (const char c : text) {
        ended += c == '\n' ? "\r\n" : std::string(1, c);
    }
    require(PowerConfiguration::parse(report) == configuration,
            "a report made of what was understood is understood alike");
    require(decodeJson<PowerConfiguration>(encodeJson(configuration)) == configuration,
            "what was understood survives as JSON");
    require(PowerConfiguration::parse(ended) == configuration, "line ends make no difference");
    require(PowerConfiguration::parse(text + "\nUPS Power:\n sleep 1\n") == configuration,
            "another source's section changes nothing");

    constexpr std::int64_t kMinutes = 7;
    const auto before = configuration.value(PowerSetting::systemSleep, PowerSource::ac);
    const auto after = PowerConfiguration::parse(text + "\nAC Power:\n sleep 7\n")
                           .value(PowerSetting::systemSleep, PowerSource::ac);
    require(before ? !after : !after || after == kMinutes,
            "a setting listed twice is not readable");
    return 0;
}
