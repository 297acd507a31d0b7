// Whether the fans could be taken now, and what is in the way, as a monitor would print it.
#pragma once

#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "core/hardware/smc.h"
#include "core/model/json_fields.h"
#include "core/model/snapshot.h"

struct ObstacleRow {
    std::optional<int> fan;  // index from 0; absent when it is no single fan's
    std::string title, key, message;
    std::optional<double> value, limit;

    static constexpr auto jsonFields() {
        using R = ObstacleRow;
        using ferovane::jsonField;
        return std::tuple{jsonField("fan", &R::fan),     jsonField("title", &R::title),
                          jsonField("key", &R::key),     jsonField("message", &R::message),
                          jsonField("value", &R::value), jsonField("limit", &R::limit)};
    }
};

struct LeaseRow {
    std::string lease;                   // "cooling" or "curve"
    std::optional<std::string> message;  // what it would say; absent when it would start
    bool certain = true;
    std::vector<ObstacleRow> obstacles;

    static constexpr auto jsonFields() {
        using R = LeaseRow;
        using ferovane::jsonField;
        return std::tuple{jsonField("lease", &R::lease), jsonField("message", &R::message),
                          jsonField("certain", &R::certain), jsonField("obstacles", &R::obstacles)};
    }
};

// Reads only. The curve lease is asked about with the balanced curve.
std::vector<LeaseRow> leaseReport(ferovane::SMC& smc, const ferovane::Snapshot& sample);
