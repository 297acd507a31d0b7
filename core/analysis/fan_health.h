// Whether fans do what they are told.
#pragma once

#include <map>
#include <optional>
#include <span>
#include <tuple>
#include <vector>

#include "core/analysis/health_finding.h"
#include "core/analysis/observation_clock.h"
#include "core/model/date.h"
#include "core/model/fan_target.h"
#include "core/model/json_fields.h"
#include "core/model/snapshot.h"

namespace ferovane {

enum class FanState {
    unreadable,  // no target or no speed
    off,         // not asked to turn, and does not
    settling,    // the target changed just now, or the machine woke
    steady       // may be judged
};

// What was learned about one fan.
struct FanHabit {
    int id = 0;          // fan index from 0
    double share = 1;    // of its target that it reached while it was well
    int phases = 0;      // from which that was learned
    Evidence ceiling;    // rpm; days on which the maximum was asked for and not reached
    int ceilingDay = 0;  // the last of them

    bool operator==(const FanHabit&) const = default;
    static constexpr auto jsonFields() {
        using R = FanHabit;
        return std::tuple{jsonField("id", &R::id), jsonField("share", &R::share),
                          jsonField("phases", &R::phases), jsonField("ceiling", &R::ceiling),
                          jsonField("ceilingDay", &R::ceilingDay)};
    }
};

// Judges each fan in steady phases only, by evidence in seconds. The band is around what this very
// fan has reached before. After a pause the machine counts as having just woken.
//
// A plain value without a clock; one thread at a time.
class FanHealth {
public:
    static constexpr double kSettlingSeconds = 10;  // longer than a fan takes to start or to coast
    static constexpr double kWakingSeconds = 30;
    static constexpr double kLowShare = 0.8;       // slower than that share of the usual is slow
    static constexpr double kStoppedSeconds = 10;  // net time out of the band
    static constexpr double kSlowSeconds = 30;
    static constexpr double kUnaskedSeconds = 60;
    static constexpr double kTopShare = 0.95;     // of the maximum: a target this high asks for it
    static constexpr double kReachedShare = 0.9;  // of the usual, which is to be reached there
    static constexpr int kCeilingDays = 3;        // different days on which it was not
    static constexpr double kLeastHabit = 0.9, kMostHabit = 1.1;  // other shares are a fault
    static constexpr int kMostPhases = 20;  // then it is not learned any more: wear is no habit
    static constexpr int kMostFans = 100;   // a fan with a higher index is not looked at

    // With what habits() gave.
    explicit FanHealth(const std::vector<FanHabit>& saved = {},
                       double longestGapSeconds = kLongestGapSeconds);

    // One sample of all fans; `targets` is what their keys hold, whoever wrote it. Which samples
    // count is ObservationClock's to say.
    void add(const Snapshot& snapshot, std::span<const FanTarget> targets);

    // Whether fans that seem stopped turn, as the machine's heat tells it; absent while it does not
    // tell. Believed until the fans are seen turning.
    void noteTurning(std::optional<bool> turning);

    // Unreadable for a fan that was never seen.
    FanState state(int id) const;

    std::vector<HealthFinding> findings() const;

    // What is worth keeping for the next run.
    std::vector<FanHabit> habits() const;

private:
    struct Fan {
        FanHabit habit;
        FanState state = FanState::unreadable;
        std::optional<Date> last;  // readable sample
        double before = 0;         // speed in it
        double target = 0;         // of the phase
        Date settledAt;            // when the phase may be judged
        double shareSum = 0, steadySeconds = 0;
        bool together = false;  // all fans fell silent in one sample
        std::optional<bool> turning;
        Evidence stopped, slow, unasked;
    };
    struct Sample {
        Fan& fan;
        Date date;
        double target, speed, maximum;  // rpm; maximum 0: not known
    };

    void follow(const Sample& sample);
    static void judge(const Sample& sample, double passed);
    static void finishPhase(const Sample& sample);

    ObservationClock clock_;
    std::map<int, Fan> fans_;
};

}  // namespace ferovane
