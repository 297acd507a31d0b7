#include "helper/probe_commands.h"

#include <map>
#include <string>
#include <vector>

#include "core/fan/fan_keys.h"
#include "core/model/json_codec.h"
#include "helper/standard_streams.h"

namespace ferovane {
namespace {

constexpr double kProbeIntervalSeconds = 0.25;

// What tells whether and how the first fan can be controlled.
std::vector<std::string> fanKeys() {
    std::vector<const char*> names(FanKeys::kModes.begin(), FanKeys::kModes.end());
    names.insert(names.end(),
                 {FanKeys::kTarget, FanKeys::kSpeed, FanKeys::kMinimum, FanKeys::kMaximum});
    std::vector<std::string> keys{FanKeys::kCount, FanKeys::kUnlock, FanKeys::kForcedMask};
    for (const char* name : names) {
        keys.push_back(FanKeys::of(0, name));
    }
    return keys;
}

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
    for (const std::string& key : fanKeys()) {
        if (const auto value = smc->number(key)) {
            values.emplace(key, *value);
        }
    }
    writeText(environment.outputDescriptor, encodeJson(values) + "\n");
}

}  // namespace ferovane
