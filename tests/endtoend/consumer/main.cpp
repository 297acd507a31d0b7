#include <cstdio>

#include "core/hardware/hardware_sampler.h"
#include "core/model/json_codec.h"

int main() {
    ferovane::HardwareSampler sampler;
    std::puts(ferovane::encodeJson(sampler.sample().fans).c_str());
}
