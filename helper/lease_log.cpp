#include "helper/lease_log.h"

#include <string>

#include "core/model/scope_error.h"

namespace ferovane {

void LeaseLog::begin(std::string_view mode, double seconds) noexcept {
    mode_ = mode;
    seconds_ = seconds;
    told_ = false;
}

void LeaseLog::end(const std::exception_ptr& failure, std::string_view why) noexcept {
    const auto tell = [this](std::string_view reason) {
        log_(LogLine({"风扇控制结束（", mode_, "），",
                      held_ ? "未确认风扇恢复系统自动：" : "风扇已恢复系统自动：", reason},
                     held_));
    };
    if (told_) {
        leftHeld_ = held_;
        try {
            failure ? std::rethrow_exception(failure) : tell(why);
        } catch (const std::exception& error) {
            tell(userText(error));
        }
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
