// Tasks that currently keep the machine or its display awake.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "core/model/date.h"
#include "core/model/json_fields.h"
#include "shim/fv.h"

namespace ferovane {

struct SleepBlocker {
    std::int32_t pid = 0;
    std::string name;           // of the process
    std::string reason;         // in the task's own words; may be empty
    std::string type;           // the system's name for what is being prevented
    std::optional<Date> since;  // absent when unknown

    // From pid, type and name; tasks of one process may share it.
    std::string id() const;

    // Visits every power assertion of the machine; 0, or the platform's code.
    using Assertions = int (*)(fv_assertion_visitor visit, void* context);

    // Ordered by process id, then by the other members, so that equal states give equal lists.
    // Throws when the system gives no answer.
    static std::vector<SleepBlocker> read(Assertions assertions = fv_power_assertions);

    bool operator==(const SleepBlocker&) const = default;

    static constexpr auto jsonFields() {
        using R = SleepBlocker;
        return std::tuple{jsonField("pid", &R::pid), jsonField("name", &R::name),
                          jsonField("reason", &R::reason), jsonField("type", &R::type),
                          jsonField("since", &R::since)};
    }
};

}  // namespace ferovane
