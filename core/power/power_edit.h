// One change of one power setting on one source.
#pragma once

#include <cstdint>
#include <string>
#include <tuple>

#include "core/model/json_fields.h"
#include "core/power/power_settings.h"

namespace ferovane {

struct PowerEdit {
    PowerSource source = PowerSource::ac;
    PowerSetting key = PowerSetting::lowPowerMode;
    std::int64_t before = 0;  // read before the change
    std::int64_t after = 0;   // to be written

    // "battery:sleep": a list holds at most one edit of each pair.
    std::string id() const;

    bool operator==(const PowerEdit&) const = default;

    static constexpr auto jsonFields() {
        using R = PowerEdit;
        return std::tuple{jsonField("source", &R::source), jsonField("key", &R::key),
                          jsonField("before", &R::before), jsonField("after", &R::after)};
    }
};

}  // namespace ferovane
