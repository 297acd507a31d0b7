// The target speed that a lease holds for one fan.
#pragma once

#include <cstdint>
#include <tuple>

#include "core/model/json_fields.h"

namespace ferovane {

struct FanTarget {
    std::int64_t id = 0;  // fan index from 0
    double rpm = 0;       // revolutions per minute

    bool operator==(const FanTarget&) const = default;

    static constexpr auto jsonFields() {
        return std::tuple{jsonField("id", &FanTarget::id, JsonNote{"fan index from 0"}),
                          jsonField("rpm", &FanTarget::rpm, JsonNote{"revolutions per minute"})};
    }
};

}  // namespace ferovane
