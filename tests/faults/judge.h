// Whether the helper kept its promises in one run.
#pragma once

#include <string>
#include <vector>

#include "core/control/control_reply.h"
#include "tests/faults/flows.h"

namespace ferovane::testing {

class Judge {
public:
    // Looks at the world from now on. Both must outlive this.
    Judge(FaultWorld& world, const Flow& flow);

    // After the run: what it did wrong, in words; empty when it did nothing wrong.
    std::vector<std::string> complaints;
    double settlingSeconds = 0;  // that late writes are given at the end
    bool leftManual = false;     // a fan could not be given back; the user was told
    bool liedTo = false;         // a fan is in manual mode that was read as automatic at the last

private:
    void hearOutput(const std::string& line);
    void hearReply(const ControlReply& reply);
    void checkPowerClaim(const ControlReply& reply);
    void checkEnd();
    void checkFansLeft();
    void checkPowerLeft();
    std::string told() const;
    // Fans that are in manual mode and should not be. Nobody can be held to more than the
    // controller says: those that it says are automatic are not among them.
    std::vector<int> fansLeft() const;
    std::vector<int> fansManual() const;
    void complain(const std::string& text);

    FaultWorld& world_;
    const Flow& flow_;
    std::vector<simulator::PowerSettingValue> settingsBefore_;
};

}  // namespace ferovane::testing
