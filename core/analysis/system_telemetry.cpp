#include "core/analysis/system_telemetry.h"

#include <cmath>

#include "core/analysis/system_telemetry_readings.h"

namespace ferovane {
namespace {

constexpr double kLowestMillivolts = 1000;
constexpr double kHighestMillivolts = 30000;
constexpr double kMilliampsOutOfReach = 30000;
constexpr double kMicrowattsPerWatt = 1e6;

std::optional<double> known(double value) {
    return std::isfinite(value) ? std::optional(value) : std::nullopt;
}

std::optional<double> usedBytes(const FVMemory& memory) {
    if (memory.page_size == 0) {
        return std::nullopt;
    }
    // The counts are not taken at one moment, so more pages may seem purgeable than there are.
    const std::uint64_t kept = memory.internal_pages > memory.purgeable_pages
                                   ? memory.internal_pages - memory.purgeable_pages
                                   : 0;
    return static_cast<double>(kept + memory.wired_pages + memory.compressed_pages) *
           static_cast<double>(memory.page_size);
}

}  // namespace

std::optional<double> SystemTelemetry::memoryPercent() const {
    return memoryUsed ? known(*memoryUsed / memoryTotal * 100) : std::nullopt;
}

std::optional<double> SystemTelemetry::watts(std::optional<double> millivolts,
                                             std::optional<double> milliamps) {
    // Written so that NaN passes no comparison.
    if (!millivolts || !milliamps ||
        !(*millivolts >= kLowestMillivolts && *millivolts <= kHighestMillivolts) ||
        !(std::abs(*milliamps) < kMilliampsOutOfReach)) {
        return std::nullopt;
    }
    return *millivolts * *milliamps / kMicrowattsPerWatt;
}

SystemTelemetry telemetryFrom(Date date, const FVBattery& battery,
                              const std::optional<FVMemory>& memory) {
    SystemTelemetry telemetry;
    telemetry.date = date;
    telemetry.batteryPercent = known(battery.percent);
    telemetry.batteryWatts =
        SystemTelemetry::watts(known(battery.millivolts), known(battery.milliamps));
    if (battery.charging >= 0) {
        telemetry.charging = battery.charging != 0;
    }
    if (battery.cycles >= 0) {
        telemetry.cycles = battery.cycles;
    }
    if (memory) {
        telemetry.memoryUsed = usedBytes(*memory);
        telemetry.memoryTotal = static_cast<double>(memory->total_bytes);
    }
    return telemetry;
}

SystemTelemetry SystemTelemetry::read() {
    FVMemory memory{};
    const bool told = fv_memory(&memory) == 0;
    return telemetryFrom(Date::now(), fv_battery(), told ? std::optional(memory) : std::nullopt);
}

}  // namespace ferovane
