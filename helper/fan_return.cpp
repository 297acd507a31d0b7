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

void tellReturned(const Log& log, const std::exception_ptr& failure) noexcept {
    if (!failure) {
        return log(LogLine({"已按请求恢复全部风扇为系统自动"}));
    }
    try {
        std::rethrow_exception(failure);
    } catch (const std::exception& error) {
        log(LogLine({"未能按请求恢复全部风扇为系统自动：", userText(error)}, true));
    }
}

}  // namespace ferovane
