// Processor load in words.
#pragma once

#include <optional>
#include <string_view>

namespace ferovane {

enum class CpuLoadBand { idle, light, moderate, heavy, saturated };

// Busy percentage of all processors at which each band above idle begins. Below 10 a machine does
// nothing that a user started; from 35 fans tend to be heard; at 90 there is nothing left to give.
inline constexpr double kLightLoadPercent = 10;
inline constexpr double kModerateLoadPercent = 35;
inline constexpr double kHeavyLoadPercent = 65;
inline constexpr double kSaturatedLoadPercent = 90;

// Absent for a usage that is absent or not finite.
std::optional<CpuLoadBand> cpuLoadBand(std::optional<double> usage);

std::string_view title(CpuLoadBand band);

}  // namespace ferovane
