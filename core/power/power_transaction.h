// Applying a power plan with a record of what was changed, and undoing exactly that.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <tuple>
#include <vector>

#include "core/model/date.h"
#include "core/model/json_fields.h"
#include "core/model/uuid.h"
#include "core/power/power_optimization_plan.h"
#include "core/power/power_settings_access.h"

namespace ferovane {

// Kept by the monitor between applying and restoring; the helper remembers nothing.
struct PowerBackup {
    Uuid id;
    Date date;
    std::vector<PowerEdit> edits;             // in the order made
    std::optional<std::int64_t> turboBefore;  // 0 or 1; absent when turbo was not touched

    static constexpr JsonChoices<2> kTurboStates{{0, 1}};

    PowerBackup() = default;  // to be filled by decoding
    // Gives itself a fresh id, and the time of its creation as its date.
    PowerBackup(std::vector<PowerEdit> editsMade, std::optional<std::int64_t> turboStateBefore,
                Date created = Date::now());

    // Throws unless this could have been made by applying a plan: values in their settings' ranges,
    // each setting at most once, turbo before 0 or 1.
    void validate() const;

    bool operator==(const PowerBackup&) const = default;

    static constexpr auto jsonFields() {
        using R = PowerBackup;
        return std::tuple{
            jsonField("id", &R::id), jsonField("date", &R::date),
            jsonField("edits", &R::edits, JsonDistinct<PowerSource, PowerSetting>{"source", "key"}),
            jsonField("turboBefore", &R::turboBefore, kTurboStates)};
    }
};

struct PowerOutcome {
    std::optional<PowerBackup> backup;  // absent after a restore
    bool changed = false;               // some setting or the turbo state was changed
    std::int64_t skipped = 0;           // items left alone
    std::optional<Date> startedAt;      // just before the first write; absent after a restore

    bool operator==(const PowerOutcome&) const = default;

    static constexpr auto jsonFields() {
        using R = PowerOutcome;
        return std::tuple{jsonField("backup", &R::backup), jsonField("changed", &R::changed),
                          jsonField("skipped", &R::skipped), jsonField("startedAt", &R::startedAt)};
    }
};

namespace PowerTransaction {

// Checks everything, then changes settings in the plan's order and turbo last. When a change fails,
// the ones made before it are put back in reverse order; so is the failed one if it took effect
// after all, whether it failed or the work was given up. Throws the failure as it was, or joined
// with what could not be put back. `skipped` counts the settings that already had the wanted value.
PowerOutcome apply(const PowerOptimizationPlan& plan, PowerSettingsAccess& access,
                   const std::function<Date()>& now = Date::now);

// Undoes an apply whose outcome reaches nobody, undisturbed: tries every change that is still as
// the plan left it, the last one first, and throws what could not be put back.
void takeBack(const PowerBackup& backup, PowerSettingsAccess& access);

// Undoes, from the last edit to the first, whatever is still as the plan left it; values changed by
// someone else since, and values that cannot be read, are left alone and counted in `skipped`.
// Restoring again changes nothing. The first failing write ends the restore; it is not given up,
// but goes on undisturbed.
PowerOutcome restore(const PowerBackup& backup, PowerSettingsAccess& access);

}  // namespace PowerTransaction

}  // namespace ferovane
