// Whether fans do what they are told.
#pragma once

#include <map>
#include <optional>
#include <span>
#include <tuple>
#include <vector>

#include "core/analysis/health_finding.h"
#include "core/model/date.h"
#include "core/model/json_fields.h"

namespace ferovane {

// Speeds in revolutions per minute; what cannot be read is absent, never 0.
struct FanSample {
    int id = 0;                    // fan index from 0
    std::optional<double> target;  // what the fan's key holds, whoever wrote it
    std::optional<double> measured;
    std::optional<double> maximum;  // as rated
};

enum class FanState {
    unreadable,  // no target or no speed
    off,         // not asked to turn, and does not
    starting,    // asked to turn, and does not yet
    settling,    // the target changed less than kSettlingSeconds ago, or the machine just woke
    steady       // may be judged
};

// What was learned about one fan while it was well.
struct FanResponsePart {
    int tenth = 0;     // of the rated maximum that the target lies in
    double share = 1;  // of the target that the fan reaches
    int phases = 0;    // from which it was learned

    bool operator==(const FanResponsePart&) const = default;
    static constexpr auto jsonFields() {
        using R = FanResponsePart;
        return std::tuple{jsonField("tenth", &R::tenth), jsonField("share", &R::share),
                          jsonField("phases", &R::phases)};
    }
};
struct FanHabit {
    int id = 0;
    std::vector<FanResponsePart> parts;
    std::vector<Date> below;        // when the maximum was asked for and not reached, a date a day
    double usual = 0, reached = 0;  // rpm, on the last of them

    bool operator==(const FanHabit&) const = default;
    static constexpr auto jsonFields() {
        using R = FanHabit;
        return std::tuple{jsonField("id", &R::id), jsonField("parts", &R::parts),
                          jsonField("below", &R::below), jsonField("usual", &R::usual),
                          jsonField("reached", &R::reached)};
    }
};

// Judges each fan in steady phases only, by counters that go up while it is out of its band and
// down while it is in: a fan that wobbles is found, one that misses a sample is not. The band is
// around what this very fan has reached at such targets before. Any pace of sampling up to one in
// 15 s; after a longer pause the machine counts as having just woken.
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

    static constexpr int kMostFans = 100;  // a fan with a higher index is not looked at

    FanHealth() = default;
    explicit FanHealth(const std::vector<FanHabit>& saved);  // with what habits() gave

    // One sample of all fans. A second one of the same moment, or without a finite date, does not
    // count; a clock that was set back is a pause.
    void add(Date date, std::span<const FanSample> fans);

    // Whether fans that seem stopped turn, as the machine's heat tells it; absent while it does not
    // tell. Believed until the fans are seen turning.
    void noteTurning(std::optional<bool> turning);

    // Unreadable for a fan that was never seen.
    FanState state(int id) const;
    bool seemsStopped() const;  // any fan

    std::vector<HealthFinding> findings() const;

    // What is worth keeping for the next run.
    std::vector<FanHabit> habits() const;

private:
    // Net seconds out of a band, and the evidence.
    struct Count {
        double seconds = 0;
        bool raised = false;
        Date since;
        double expected = 0, measured = 0;

        void add(bool out, double passed, double limit, Date date, double asked, double seen);
    };
    struct Fan {
        FanHabit habit;
        FanState state = FanState::unreadable;
        std::optional<Date> last;  // readable sample
        Date phaseSince, wokeAt;
        double target = 0;  // of the phase
        double before = 0;  // speed of the last sample
        double shareSum = 0, steadySeconds = 0;
        bool phaseUsed = false;  // learned from, or judged at the maximum
        bool together = false;   // all fans fell silent in one sample
        std::optional<bool> turning;
        Count stopped, slow, unasked;
    };

    static bool follow(Fan& fan, Date date, const FanSample& sample);
    static void judge(Fan& fan, Date date, double passed, const FanSample& sample);
    static void finishPhase(Fan& fan, Date date, double maximum);

    std::map<int, Fan> fans_;
};

}  // namespace ferovane
