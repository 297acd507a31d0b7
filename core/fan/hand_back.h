// The one way in which every fan is handed back, and how every fan path says that one was not.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/fan/cooling_hardware.h"
#include "core/model/scope_error.h"

namespace ferovane {

// A fan that was not taken. Nothing was written to it, so nothing of it is to be handed back.
class FanRefusal : public ScopeError {
public:
    explicit FanRefusal(std::string message, ResultCode code = ResultCode::occupied)
        : ScopeError(std::move(message), code) {}
};

inline constexpr const char* kFanNotAutomatic = "风扇未处于系统自动，请先退出其他风扇控制程序";

inline constexpr std::string_view kRestoreFailed = "恢复自动风扇失败";

// The text above with its causes, in order; the bare text when no cause is known.
std::string restoreFailure(const std::vector<std::string>& causes);

namespace CoolingLease {

// Hands every listed fan back to the system, by one attempt, also after one has failed, and
// needs no memory to do so. Throws one ScopeError with every failure. May be called again.
void restoreAuto(const std::vector<int>& ids, CoolingHardware& hardware);

// Runs `act`, which may take and drive the fans `ids`, and hands them all back however it ends. An
// error of `act` passes on, whatever becomes of handing back; without one, a failure to hand back
// is the result.
void handBackAfter(const std::vector<int>& ids, CoolingHardware& hardware,
                   const std::function<void()>& act);

}  // namespace CoolingLease
}  // namespace ferovane
