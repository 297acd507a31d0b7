#include "helper/fan_return.h"

#include "core/fan/hand_back.h"
#include "core/model/scope_error.h"

namespace ferovane {

void returnEveryFan(CoolingHardware& hardware) {
    std::vector<int> ids;
    for (const FanReading& fan : hardware.fans()) {
        ids.push_back(fan.id);
    }
    if (ids.empty()) {
        throw ScopeError("没有可读取的风扇", ResultCode::unreadable);
    }
    CoolingLease::restoreAuto(ids, hardware);
}

}  // namespace ferovane
