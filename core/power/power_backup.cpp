#include <algorithm>
#include <set>
#include <utility>

#include "core/model/scope_error.h"
#include "core/power/power_transaction.h"

namespace ferovane {

PowerBackup::PowerBackup(std::vector<PowerEdit> editsMade,
                         std::optional<std::int64_t> turboStateBefore, Date created)
    : id(Uuid::random()),
      date(created),
      edits(std::move(editsMade)),
      turboBefore(turboStateBefore) {}

void PowerBackup::validate() const {
    std::set<std::pair<PowerSource, PowerSetting>> pairs;
    const bool editsValid = std::all_of(edits.begin(), edits.end(), [&](const PowerEdit& edit) {
        return valid(edit.key, edit.before) && valid(edit.key, edit.after) &&
               pairs.emplace(edit.source, edit.key).second;
    });
    const bool turboValid = !turboBefore || *turboBefore == 0 || *turboBefore == 1;
    if (!editsValid || !turboValid) {
        throw ScopeError("恢复记录无效");
    }
}

}  // namespace ferovane
