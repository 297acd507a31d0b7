// A long random walk of plans, faults, unplugging, foreign edits and restores, held to a model.
//
// The model is what the machine has to look like after each step. It is worked out from the plan or
// the backup alone, without the transaction's own reading, ordering and undoing.
#include <gtest/gtest.h>

#include <array>
#include <random>
#include <string>
#include <vector>

#include "core/power/power_transaction.h"
#include "tests/power/fake_power_access.h"

namespace ferovane {
namespace {

using testing::FakePowerAccess;
using testing::laptopSettings;
using testing::PowerFault;
using enum PowerSetting;

constexpr std::uint64_t kSeed = 20240501;
constexpr int kSteps = 100000;
constexpr std::size_t kBackupsKept = 4;
constexpr std::int64_t kForeignMinutes = 77;  // no plan asks for it, no machine starts with it

struct World {
    PowerConfiguration settings;
    std::optional<std::int64_t> turbo;
    bool operator==(const World&) const = default;
};

class Walk {
public:
    Walk() : random_(kSeed) { mac_.settings = laptopSettings(); }

    void step() {
        mac_.writes.clear();
        mac_.clearFaults();
        switch (pick(10)) {
            case 0:
            case 1:
                foreignEdit();
                break;
            case 2:
                changeSurroundings();
                break;
            case 3:
            case 4:
            case 5:
            case 6:
                apply();
                break;
            default:
                restore();
        }
    }

    int applied = 0, rolledBack = 0, refused = 0, restored = 0, restoredLater = 0, kept = 0;

private:
    int pick(int count) { return static_cast<int>(random_() % static_cast<std::uint64_t>(count)); }
    bool chance(int percent) { return pick(100) < percent; }
    template <class T, std::size_t N>
    T any(const std::array<T, N>& values) {
        return values[static_cast<std::size_t>(pick(static_cast<int>(N)))];
    }
    PowerSource anySource() { return any(std::array{PowerSource::ac, PowerSource::battery}); }
    PowerSetting anySetting() { return any(std::array{lowPowerMode, displaySleep, systemSleep}); }
    std::int64_t anyValue(PowerSetting setting) {
        return setting == lowPowerMode ? pick(2)
                                       : any(std::array<std::int64_t, 5>{0, 2, 5, 10, 60});
    }

    World world() const { return {mac_.settings, mac_.turbo}; }

    // Another program sets a value, or a setting becomes unreadable for a while.
    void foreignEdit() {
        auto& settings = mac_.settings.profiles[anySource()];
        const auto setting = anySetting();
        if (chance(10)) {
            settings.erase(setting);
        } else {
            settings[setting] = anyValue(setting);
        }
    }

    void changeSurroundings() {
        mac_.source = chance(5) ? std::nullopt : std::optional(anySource());
        mac_.blockers = chance(5);
        mac_.turbo = chance(10) ? std::nullopt : std::optional<std::int64_t>(pick(2));
    }

    PowerOptimizationPlan anyPlan() {
        PowerOptimizationPlan plan;
        plan.source = chance(80) ? mac_.source.value_or(PowerSource::ac) : anySource();
        plan.scope = any(std::array{PowerScope::current, PowerScope::batteryAutomatic});
        plan.lowPower = chance(50);
        if (chance(60)) {
            plan.displayMinutes = any(std::array<std::int64_t, 4>{2, 5, 10, 3});
        }
        if (chance(60)) {
            plan.idleMinutes = any(std::array<std::int64_t, 4>{5, 10, 15, 10});
        }
        plan.disableTurbo = chance(40);
        if (chance(30)) {
            plan.expected = mac_.settings;
        }
        return plan;
    }

    // The machine as the plan wants it.
    static World wanted(World world, const PowerOptimizationPlan& plan) {
        auto& profiles = world.settings.profiles;
        if (plan.lowPower) {
            const bool toBattery = plan.scope == PowerScope::batteryAutomatic;
            profiles[toBattery ? PowerSource::battery : plan.source][lowPowerMode] = 1;
        }
        if (plan.displayMinutes) {
            profiles[plan.source][displaySleep] = *plan.displayMinutes;
        }
        if (plan.idleMinutes) {
            profiles[plan.source][systemSleep] = *plan.idleMinutes;
        }
        if (plan.disableTurbo) {
            world.turbo = 1;
        }
        return world;
    }

    void apply() {
        const auto plan = anyPlan();
        auto before = world();
        if (chance(20)) {
            mac_.stopAtCall(1 + pick(9), chance(50));
        } else if (chance(60)) {
            const auto fault = any(std::array{PowerFault::refused, PowerFault::unconfirmed});
            const bool meddles = chance(30);
            mac_.failCall(1 + pick(7), fault, [this, meddles, &before] {
                if (meddles) {
                    meddle(before);
                }
            });
        }
        try {
            const auto outcome = PowerTransaction::apply(plan, mac_, [] { return Date{}; });
            checkApplied(plan, before, outcome);
        } catch (const ScopeError& error) {
            // One fault at most: whatever was begun has been undone.
            EXPECT_EQ(world(), before) << error.message();
            EXPECT_EQ(error.message().find("；"), std::string::npos) << error.message();
            mac_.writes.empty() ? ++refused : ++rolledBack;
        }
    }

    // Somebody sets a sleep time just when a call of ours fails; that has to survive.
    void meddle(World& expected) {
        const auto source = anySource();
        const auto setting = any(std::array{displaySleep, systemSleep});
        mac_.settings.profiles[source][setting] = kForeignMinutes;
        expected.settings.profiles[source][setting] = kForeignMinutes;
    }

    void checkApplied(const PowerOptimizationPlan& plan, const World& before,
                      const PowerOutcome& outcome) {
        EXPECT_EQ(world(), wanted(before, plan));
        ASSERT_TRUE(outcome.backup);
        // Undoing the backup by hand leads back to where it began: no edit is lost or invented.
        auto undone = world();
        for (const auto& edit : outcome.backup->edits) {
            auto& value = undone.settings.profiles[edit.source][edit.key];
            EXPECT_EQ(value, edit.after);
            value = edit.before;
        }
        if (outcome.backup->turboBefore) {
            undone.turbo = outcome.backup->turboBefore;
        }
        EXPECT_EQ(undone, before);
        EXPECT_EQ(outcome.changed, world() != before);
        const auto targets =
            plan.lowPower + plan.displayMinutes.has_value() + plan.idleMinutes.has_value();
        EXPECT_EQ(outcome.skipped + static_cast<std::int64_t>(outcome.backup->edits.size()),
                  targets);
        ++applied;
        backups_.push_back(*outcome.backup);
        if (backups_.size() > kBackupsKept) {
            backups_.erase(backups_.begin());
        }
    }

    struct Restored {
        World world;
        PowerOutcome outcome;
    };

    // What a restore may touch: values that are still as the backup left them.
    static Restored restoredBy(const PowerBackup& backup, World world) {
        PowerOutcome outcome;
        for (const auto& edit : backup.edits) {
            auto& settings = world.settings.profiles[edit.source];
            const auto found = settings.find(edit.key);
            if (found == settings.end()) {
                ++outcome.skipped;
            } else if (found->second == edit.after) {
                found->second = edit.before;
                outcome.changed = true;
            } else if (found->second != edit.before) {
                ++outcome.skipped;
            }
        }
        if (backup.turboBefore) {
            if (world.turbo == 1) {
                world.turbo = 0;  // no backup is made of a turbo that was off already
                outcome.changed = true;
            } else if (world.turbo != 0) {
                ++outcome.skipped;
            }
        }
        return {world, outcome};
    }

    void restore() {
        if (backups_.empty()) {
            return;
        }
        const auto backup =
            backups_[static_cast<std::size_t>(pick(static_cast<int>(backups_.size())))];
        const auto expected = restoredBy(backup, world());
        if (chance(40)) {
            mac_.failCall(1 + pick(5),
                          any(std::array{PowerFault::refused, PowerFault::unconfirmed}));
        }
        try {
            EXPECT_EQ(PowerTransaction::restore(backup, mac_), expected.outcome);
            ++restored;
        } catch (const ScopeError&) {
            // What was left undone is found by trying again.
            mac_.clearFaults();
            EXPECT_EQ(PowerTransaction::restore(backup, mac_).skipped, expected.outcome.skipped);
            ++restoredLater;
        }
        EXPECT_EQ(world(), expected.world);
        kept += expected.outcome.skipped > 0 ? 1 : 0;

        mac_.clearFaults();
        mac_.writes.clear();
        const auto again = PowerTransaction::restore(backup, mac_);
        EXPECT_FALSE(again.changed);
        EXPECT_EQ(again.skipped, expected.outcome.skipped);
        EXPECT_TRUE(mac_.writes.empty());
    }

    std::mt19937_64 random_;
    FakePowerAccess mac_;
    std::vector<PowerBackup> backups_;
};

TEST(PowerWalkTest, NeitherLosesAnEditNorOverwritesAForeignOne) {
    Walk walk;
    for (int step = 0; step < kSteps; ++step) {
        walk.step();
        ASSERT_FALSE(::testing::Test::HasFailure()) << "at step " << step << ", seed " << kSeed;
    }
    // The walk has to have been everywhere.
    for (const int visits : {walk.applied, walk.rolledBack, walk.refused, walk.restored,
                             walk.restoredLater, walk.kept}) {
        EXPECT_GT(visits, kSteps / 100);
    }
}

}  // namespace
}  // namespace ferovane
