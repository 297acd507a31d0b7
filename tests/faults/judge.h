// Whether the helper kept its promises in one run, by what was written to the machine, how the
// machine stands, and what the user was told.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/control/control_reply.h"
#include "tests/faults/fault_kinds.h"

namespace ferovane::testing {

class Judge {
public:
    // Looks at the world from now on. All must outlive this. found: how the machine was found.
    Judge(FaultWorld& world, const Flow& flow, const FaultKind* found);

    void strikes(const FaultKind& kind, const Call& call);  // just before it does
    void ended(int status);  // the helper's process has; everything about it is gone

    // What it did wrong, in words; empty when it did nothing wrong.
    std::vector<std::string> complaints;
    bool isLeft = false;  // a fan is in manual mode that should not be; perhaps rightly told so

private:
    using Keys = std::set<std::string>;  // "": all of them

    struct Fan {
        double modeBefore;
        std::optional<std::size_t> othersSince;  // calls made before another program took it
        bool returnedOfOthers = false;
        bool taken = false;       // once
        int orders = 0;           // to be automatic, since it was last told to be manual
        double orderedAt = 0;     // the last of them
        double targetBefore = 0;  // the last target but one, until when
        double targetChangedAt = 0;
    };

    void complainIf(bool isWrong, const std::string& text);
    void seeRival(const FaultKind& kind);
    void loses(double since) { interferedAt_ = std::min(interferedAt_, since); }
    void seeWrites(const std::vector<FanWrite>& writes);
    void seeTarget(const FanWrite& write);
    void seeTaking(const FanWrite& write);
    void seeReturning(const FanWrite& write);
    void seeMachine();
    void hearOutput(const std::string& line);
    void hearLog(const std::string& line);
    void hearReply(const ControlReply& reply, const Asked& asked);
    void checkForeseen(const ControlReply& reply, Ask ask);
    void checkControlTold(const ControlReply& reply);
    void checkEnd();
    void checkFansLeft();
    void checkRefusal(const std::string& told);
    void checkFailure(int status);

    Fan& of(int fan) { return fans_[static_cast<std::size_t>(fan)]; }
    static bool has(const Keys& keys, std::initializer_list<std::string> any);
    static bool hasSwitch(const Keys& keys, int fan);
    bool isTouched(int fan) const { return hasSwitch(hit_, fan) || has(hit_, {"FNum"}); }
    bool isHit() const;
    bool isFit() const;
    bool isCalm() const { return calm_ && !isHit(); }
    bool isCutOff() const { return world_.muffled || !world_.undelivered.empty(); }
    int timesAsked(Ask ask) const;
    bool mayThinkItReturned(int fan) const;
    bool mayLeave(int fan, double end);
    std::vector<int> fansLeft();
    bool leavesKnown();  // and could know
    double slowest(double secondsPerFan) const;
    double takingSeconds() const;
    double now() { return world_.mac.now(); }
    double driverLoaded();

    FaultWorld& world_;
    const Flow& flow_;
    const FaultKind* found_;
    const double start_;

    // What has struck.
    bool quiet_ = true, calm_ = true, slow_ = false, rival_ = false, slept_ = false;
    bool timeIsWrong_ = false, toolsWrong_ = false;
    Keys hit_, lied_, late_;  // hit_: in any way
    double lastHitAt_ = -Turns::kForever;
    double causeAt_ = Turns::kForever;
    double interferedAt_ = Turns::kForever;  // with a fan that was held
    bool onlyMoved_ = false;                 // its target, which the lease may set anew unknowing
    double keptAt_ = Turns::kForever;
    std::size_t rivalCalls_ = 0;              // made when one was last seen
    std::optional<std::size_t> unlockSince_;  // calls made before

    // What was seen.
    std::vector<Fan> fans_;
    double driver_;  // 1 when it should be loaded
    int descriptors_;
    bool held_ = false, wasHeld_ = false, wrote_ = false;
    bool logged_ = false;  // a lease that runs
    double heldSince_ = 0, heldUntil_ = 0;
    std::size_t answered_ = 0;
    double answeredAt_ = 0;
    double refusedAt_ = Turns::kForever;  // a lease that holds fans
    double leaseEnds_ = 0;                // of a session's lease, as was told; 0: none
};

}  // namespace ferovane::testing
