#include "helper/lease_log.h"

#include <string>

namespace ferovane {

void LeaseLog::begin(std::string_view mode, double seconds) noexcept {
    mode_ = mode;
    seconds_ = seconds;
    told_ = false;
}

void LeaseLog::end(std::string_view why) noexcept {
    if (told_) {
        leftHeld_ = held_;
        log_(LogLine({"风扇控制结束（", mode_, "），",
                      held_ ? "未确认风扇恢复系统自动：" : "风扇已恢复系统自动：", why},
                     held_));
    }
    mode_ = {};
}

void LeaseLog::fansHeld() {
    guardian_.fansHeld();
    held_ = true;
    if (!mode_.empty() && !told_) {
        told_ = true;
        log_(LogLine({"风扇控制开始（", mode_, "），最长 ",
                      std::to_string(static_cast<int>(seconds_)), " 秒"}));
    }
}

void LeaseLog::fansReturned() noexcept {
    guardian_.fansReturned();
    held_ = false;
    if (leftHeld_) {
        leftHeld_ = false;
        log_(LogLine({"先前未确认的风扇已恢复系统自动"}));
    }
}

}  // namespace ferovane
