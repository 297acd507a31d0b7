#include "core/power/power_transaction.h"

#include <algorithm>
#include <cstddef>
#include <exception>
#include <set>
#include <string>
#include <utility>

#include "core/model/scope_error.h"

namespace ferovane {

namespace {

constexpr std::int64_t kTurboEnabled = 0;   // the driver is not loaded
constexpr std::int64_t kTurboDisabled = 1;  // the driver is loaded

constexpr const char* kNotPutBack = "部分原设置未确认恢复：";

// What is left to do once every check has passed.
struct Work {
    std::vector<PowerEdit> edits;
    std::int64_t skipped = 0;
    bool switchesTurbo = false;
};

// Reads and refuses; writes nothing.
Work check(const PowerOptimizationPlan& plan, PowerSettingsAccess& access) {
    const auto configuration = access.configuration();
    plan.requireReadable(configuration);
    if (access.currentSource() != plan.source) {
        throw ScopeError("供电状态已变化，请刷新优化方案", ResultCode::changed);
    }
    if (plan.idleMinutes && access.hasSleepBlockers()) {
        throw ScopeError("存在阻止休眠的任务，未修改休眠设置", ResultCode::occupied);
    }
    bool switchesTurbo = false;
    if (plan.disableTurbo) {
        const auto turbo = access.turboState();
        if (turbo != kTurboEnabled && turbo != kTurboDisabled) {
            throw ScopeError("睿频状态不可确认", ResultCode::unreadable);
        }
        switchesTurbo = turbo == kTurboEnabled;
    }
    Work work{plan.edits(configuration), 0, switchesTurbo};
    work.skipped = static_cast<std::int64_t>(plan.targets().size() - work.edits.size());
    return work;
}

// Makes the changes one by one and can put back those it has begun.
class Changes {
public:
    Changes(const Work& work, PowerSettingsAccess& access) : work_(work), access_(access) {}

    // All of them made before.
    static Changes made(const Work& work, PowerSettingsAccess& access) {
        Changes changes(work, access);
        changes.begun_ = changes.done_ = work.edits.size();
        changes.turboBegun_ = changes.turboDone_ = work.switchesTurbo;
        return changes;
    }

    void make() {
        for (const auto& edit : work_.edits) {
            ++begun_;
            access_.set(edit.key, edit.source, edit.after);
            ++done_;
        }
        if (work_.switchesTurbo) {
            turboBegun_ = true;
            access_.setTurbo(true);
        }
    }

    // Tries every change begun, the last one first, and returns what failed. Nothing cuts this in:
    // a change that stayed would be recorded nowhere.
    std::vector<std::string> putBack() {
        PowerSettingsAccess& access = access_.undisturbed();
        std::vector<std::string> failures;
        const auto attempt = [&](const auto& change) {
            try {
                change();
            } catch (const std::exception& error) {
                failures.push_back(describe(error));
            }
        };
        attempt([&] {
            if (turboToPutBack(access)) {
                access.setTurbo(false);
            }
        });
        const auto now = readingIfAny(access);
        for (std::size_t index = begun_; index-- > 0;) {
            const auto& edit = work_.edits[index];
            if (toPutBack(edit, index < done_, now.value(edit.key, edit.source))) {
                attempt([&] { access.set(edit.key, edit.source, edit.before); });
            }
        }
        return failures;
    }

private:
    // A failed change may have taken effect nevertheless (a tool that was too slow, a read-back
    // that failed). Nobody would hold a record of it, so it is undone unless the machine shows that
    // there is nothing to undo; when that fails too, the user hears of it.
    bool turboToPutBack(PowerSettingsAccess& access) const {
        return turboDone_ || (turboBegun_ && access.turboState() != kTurboEnabled);
    }

    static bool toPutBack(const PowerEdit& edit, bool confirmed,
                          const std::optional<std::int64_t>& current) {
        if (!confirmed && current) {
            return current == edit.after;
        }
        const bool foreign = current && *current != edit.after && *current != edit.before;
        return !foreign;
    }

    // Without a reading every change that was begun is put back all the same.
    PowerConfiguration readingIfAny(PowerSettingsAccess& access) const {
        if (begun_ == 0) {
            return {};
        }
        try {
            return access.configuration();
        } catch (const std::exception&) {
            return {};
        }
    }

    const Work& work_;
    PowerSettingsAccess& access_;
    std::size_t begun_ = 0, done_ = 0;
    bool turboBegun_ = false, turboDone_ = false;
};

// Whether it changed the turbo state; one more skipped when it was left alone.
bool restoreTurbo(std::int64_t before, PowerSettingsAccess& access, std::int64_t& skipped) {
    const auto current = access.turboState();
    if (current == kTurboDisabled) {
        access.setTurbo(before == kTurboDisabled);
        return true;
    }
    if (current != before) {
        ++skipped;
    }
    return false;
}

}  // namespace

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
    const bool turboValid = !turboBefore || kTurboStates.admits(*turboBefore);
    if (!editsValid || !turboValid) {
        throw ScopeError("恢复记录无效", ResultCode::invalid);
    }
}

PowerOutcome PowerTransaction::apply(const PowerOptimizationPlan& plan, PowerSettingsAccess& access,
                                     const std::function<Date()>& now) {
    const auto work = check(plan, access);
    const auto startedAt = now();
    Changes changes(work, access);
    try {
        changes.make();
        const auto turboBefore = work.switchesTurbo ? std::optional(kTurboEnabled) : std::nullopt;
        const bool changed = !work.edits.empty() || work.switchesTurbo;
        return {PowerBackup(work.edits, turboBefore, now()), changed, work.skipped, startedAt};
    } catch (const std::exception& failure) {
        const auto notRestored = changes.putBack();
        if (notRestored.empty()) {
            throw;
        }
        throw ScopeError(describe(failure) + "；" + kNotPutBack + joinFailures(notRestored),
                         ResultCode::notUndone);
    }
}

void PowerTransaction::takeBack(const PowerBackup& backup, PowerSettingsAccess& access) {
    const Work work{backup.edits, 0, backup.turboBefore.has_value()};
    const auto notRestored = Changes::made(work, access).putBack();
    if (!notRestored.empty()) {
        throw ScopeError(kNotPutBack + joinFailures(notRestored), ResultCode::notUndone);
    }
}

PowerOutcome PowerTransaction::restore(const PowerBackup& backup, PowerSettingsAccess& given) {
    backup.validate();
    PowerSettingsAccess& access = given.undisturbed();
    const auto configuration = access.configuration();
    PowerOutcome outcome;
    for (auto edit = backup.edits.rbegin(); edit != backup.edits.rend(); ++edit) {
        const auto current = configuration.value(edit->key, edit->source);
        if (current == edit->before) {
            continue;
        }
        if (current == edit->after) {
            access.set(edit->key, edit->source, edit->before);
            outcome.changed = true;
        } else {
            ++outcome.skipped;
        }
    }
    if (backup.turboBefore && restoreTurbo(*backup.turboBefore, access, outcome.skipped)) {
        outcome.changed = true;
    }
    return outcome;
}

}  // namespace ferovane
