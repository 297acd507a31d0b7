#include "helper/probe_commands.h"

#include <map>
#include <string>

#include "core/fan/fan_keys.h"
#include "core/model/json_codec.h"
#include "helper/standard_streams.h"

namespace ferovane {
namespace {

constexpr double kProbeIntervalSeconds = 0.25;

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
    for (const std::string& key : FanKeys::ofFirstFan()) {
        if (const auto value = smc->number(key)) {
            values.emplace(key, *value);
        }
    }
    writeText(environment.outputDescriptor, encodeJson(values) + "\n");
}

}  // namespace ferovane
