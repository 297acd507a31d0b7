// What a running fan session is doing, as a reply tells it.
#pragma once

#include <tuple>
#include <vector>

#include "core/model/fan_target.h"
#include "core/model/json_fields.h"

namespace ferovane {

struct FanSessionStatus {
    double remainingSeconds = 0;     // until the session's time is up
    std::vector<FanTarget> targets;  // what each fan is held at
    bool protectionActive = false;   // the temperature protection has taken over from the curve

    bool operator==(const FanSessionStatus&) const = default;

    static constexpr auto jsonFields() {
        using R = FanSessionStatus;
        return std::tuple{jsonField("remainingSeconds", &R::remainingSeconds),
                          jsonField("targets", &R::targets),
                          jsonField("protectionActive", &R::protectionActive)};
    }
};

}  // namespace ferovane
