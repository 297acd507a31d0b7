#include "helper/probe_commands.h"

#include <array>
#include <map>

#include "core/model/json_codec.h"
#include "helper/standard_streams.h"

namespace ferovane {
namespace {

constexpr double kProbeIntervalSeconds = 0.25;

constexpr std::array<const char*, 9> kFanKeys{"FNum", "F0Md", "F0md", "F0Tg", "F0Ac",
                                              "F0Mn", "F0Mx", "Ftst", "FS! "};

}  // namespace

void printSnapshot(const HelperEnvironment& environment) {
    const auto sampler = environment.makeSampler();
    sampler->sample();  // only sets the baseline of the processor's ticks
    environment.pause(kProbeIntervalSeconds);
    const JsonStyle style{.dates = JsonDates::iso8601, .pretty = true, .sortedKeys = true};
    writeText(environment.outputDescriptor, encodeJson(sampler->sample(), style) + "\n");
}

void printFanKeys(const HelperEnvironment& environment) {
    const auto smc = environment.makeSMC();
    std::map<std::string, double> values;
    for (const char* key : kFanKeys) {
        if (const auto value = smc->number(key)) {
            values.emplace(key, *value);
        }
    }
    writeText(environment.outputDescriptor, encodeJson(values) + "\n");
}

}  // namespace ferovane
