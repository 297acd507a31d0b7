// Battery and memory as the system reports them to anybody, without privileges.
#pragma once

#include <cstdint>
#include <optional>
#include <tuple>

#include "core/model/date.h"
#include "core/model/json_fields.h"

namespace ferovane {

// What cannot be read is absent, never zero. A plain value.
struct SystemTelemetry {
    Date date;
    std::optional<double> batteryPercent;  // state of charge
    std::optional<double> batteryWatts;    // negative while discharging
    std::optional<bool> charging;
    std::optional<std::int64_t> cycles;
    // Bytes: internal pages less purgeable ones, wired pages and what the compressor holds, which
    // is the figure that users know as used memory.
    std::optional<double> memoryUsed;
    double memoryTotal = 0;  // bytes of physical memory; 0 when the kernel does not tell

    Date id() const { return date; }

    // Share of the physical memory in use, in percent; absent unless both are known.
    std::optional<double> memoryPercent() const;

    // Takes one reading now. Any thread.
    static SystemTelemetry read();

    // Power of a battery; absent for a voltage outside 1000 to 30000 mV or a current of 30000 mA or
    // more in either direction, which no battery of a Mac has.
    static std::optional<double> watts(std::optional<double> millivolts,
                                       std::optional<double> milliamps);

    bool operator==(const SystemTelemetry&) const = default;

    static constexpr auto jsonFields() {
        using R = SystemTelemetry;
        return std::tuple{jsonField("date", &R::date),
                          jsonField("batteryPercent", &R::batteryPercent),
                          jsonField("batteryWatts", &R::batteryWatts),
                          jsonField("charging", &R::charging),
                          jsonField("cycles", &R::cycles),
                          jsonField("memoryUsed", &R::memoryUsed),
                          jsonField("memoryTotal", &R::memoryTotal)};
    }
};

}  // namespace ferovane
