// Whether the helper kept its promises in one run, by what was written to the machine, how the
// machine stands, and what the user was told.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/control/control_reply.h"
#include "tests/faults/failing_memory.h"
#include "tests/faults/fault_kinds.h"

namespace ferovane::testing {

class Judge {
public:
    // Looks at the world from now on. All must outlive this.
    Judge(FaultWorld& world, const MachineKind& machine, const Flow& flow,
          const Condition* condition);

    void strikes(const FaultKind& kind, const Call& call);  // just before it does
    void ended(int status);  // the helper's process has; everything about it is gone

    // What it did wrong, in words; empty when it did nothing wrong.
    std::vector<std::string> complaints;
    bool isLeft = false;  // a fan is in manual mode that should not be; perhaps rightly told so

    double heldSeconds = 0;  // in which a fan was

private:
    using Fans = std::set<int>;

    void complain(const std::string& text);
    void complainIf(bool isWrong, const char* text);
    void seeWrites(const std::vector<FanWrite>& writes);
    void seeTaking(const FanWrite& write);
    void seeMachine();
    void hearGuardian(bool held);
    void hearOutput(const std::string& line);
    void hearLog(const std::string& line);
    void hearReply(const ControlReply& reply, Ask ask);
    void checkForeseen(const ControlReply& reply, Ask ask);
    void checkControlTold(const ControlReply& reply);
    void checkEnd();
    void checkFansLeft();
    void checkSettings();

    int hits() const { return hits_ + (FailingMemory::hasStruck() ? 1 : 0); }
    bool isFit() const { return condition_ == nullptr || !condition_->refuses; }
    bool isCalm() const { return calm_ && hits() == 0; }
    bool mayBeDeceived() const { return lies_ || (lieOnce_ && hits() > 1); }
    bool wasAskedToReturn() const;
    bool mayLeave(int fan) const;
    double now() { return world_.mac.now(); }
    std::vector<int> fansLeft();
    double driverLoaded();

    FaultWorld& world_;
    const MachineKind& machine_;
    const Flow& flow_;
    const Condition* condition_;
    const int fanCount_;
    const double start_;

    // What has struck.
    bool calm_ = true, rival_ = false;
    int hits_ = 0;
    bool lieOnce_ = false, lies_ = false, late_ = false, allLate_ = false, toolsWrong_ = false,
         slept_ = false;  // slept_: or the clock is wrong
    bool deaf_ = false;
    Fans spoilt_;  // whose switch does not do as it is told any more
    double outageEnds_ = 0;
    double causeAt_ = Turns::kForever;
    double interferedAt_ = Turns::kForever;  // with a fan that was held
    bool onlyMoved_ = false;                 // its target, which the lease may set anew unknowing
    double keptAt_ = Turns::kForever;
    std::map<int, std::size_t> othersSince_;  // calls made before another program took the fan
    std::optional<std::size_t> unlockSince_;

    // What was seen.
    std::vector<double> modesBefore_;
    double driver_;  // 1 when it should be loaded
    int descriptors_;
    bool held_ = false, wasHeld_ = false, logged_ = false;  // logged_: a lease that runs
    double heldSince_ = 0, heldUntil_ = 0;
    Fans taken_, returnedOfOthers_;
    std::size_t answered_ = 0;
    std::map<int, std::pair<double, double>> before_;  // a fan's target before, and until when
    double leaseEnds_ = 0;                             // of a session's lease, as was told; 0: none
};

}  // namespace ferovane::testing
