// One reading of all power settings.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string_view>
#include <tuple>

#include "core/model/json_fields.h"
#include "core/power/power_settings.h"

namespace ferovane {

struct PowerConfiguration {
    using Settings = std::map<PowerSetting, std::int64_t>;

    // A missing source or setting is one that could not be read.
    std::map<PowerSource, Settings> profiles;

    std::optional<std::int64_t> value(PowerSetting setting, PowerSource source) const;

    // From the report of "pmset -g custom". Never fails: what is not understood, out of range or
    // listed twice in a section is not readable. A section without a readable setting still records
    // its source; sections of other sources (a UPS) are passed over.
    static PowerConfiguration parse(std::string_view text);

    bool operator==(const PowerConfiguration&) const = default;

    // The maps' keys being enumerations, each map is an array that alternates key and value.
    static constexpr auto jsonFields() {
        return std::tuple{jsonField("profiles", &PowerConfiguration::profiles)};
    }
};

}  // namespace ferovane
