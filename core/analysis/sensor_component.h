// The parts of a machine that a sensor can belong to.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "core/model/raw_enum.h"

namespace ferovane {

enum class SensorComponent { cpu, gpu, memory, storage, battery, wireless, fan, power, unknown };

std::string_view title(SensorComponent component);

template <>
struct RawEnum<SensorComponent> {
    static constexpr std::array<RawCase<SensorComponent>, 9> cases{{
        {SensorComponent::cpu, "cpu"},
        {SensorComponent::gpu, "gpu"},
        {SensorComponent::memory, "memory"},
        {SensorComponent::storage, "storage"},
        {SensorComponent::battery, "battery"},
        {SensorComponent::wireless, "wireless"},
        {SensorComponent::fan, "fan"},
        {SensorComponent::power, "power"},
        {SensorComponent::unknown, "unknown"},
    }};
};

// In the order in which a view lists them. A component's id is its raw value.
inline constexpr auto kAllSensorComponents = [] {
    std::array<SensorComponent, RawEnum<SensorComponent>::cases.size()> all{};
    for (std::size_t i = 0; i < all.size(); ++i) {
        all[i] = RawEnum<SensorComponent>::cases[i].value;
    }
    return all;
}();

}  // namespace ferovane
