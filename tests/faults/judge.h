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
    bool readingsCount = true;   // what was read back can be relied on
    double settlingSeconds = 0;  // that late writes are given at the end
    bool leftManual = false;     // a fan could not be given back; the user was told

private:
    void hearOutput(const std::string& line);
    void hearReply(const ControlReply& reply);
    void checkPowerClaim(const ControlReply& reply);
    void checkEnd();
    void checkFansLeft();
    void checkPowerLeft();
    std::string told() const;
    bool misled() const { return !readingsCount || world_.spy.liedTo(); }
    std::vector<int> fansLeft() const;
    void complain(const std::string& text);

    FaultWorld& world_;
    const Flow& flow_;
    std::vector<simulator::PowerSettingValue> settingsBefore_;
};

}  // namespace ferovane::testing
