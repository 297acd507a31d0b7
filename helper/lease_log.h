// Each lease that took a fan, in the system's log: that it began, and why it ended.
#pragma once

#include <string_view>

#include "helper/fan_guardian.h"
#include "helper/system_log.h"

namespace ferovane {

// Stands between the fans that are held and the guardian, who learns everything that this learns.
// One thread at a time.
class LeaseLog : public FanGuardian {
public:
    // The guardian must outlive this.
    LeaseLog(FanGuardian& guardian, const Log& log) : guardian_(guardian), log_(log) {}

    // A lease may take fans from now on. mode: a word of ours, such as "quiet", which lives until
    // the end. seconds: its longest time.
    void begin(std::string_view mode, double seconds) noexcept;

    // It is over, and has done what it could to hand its fans back.
    void end(std::string_view why) noexcept;

    void fansHeld() override;
    void fansReturned() noexcept override;
    void takeOver() noexcept override { guardian_.takeOver(); }

private:
    FanGuardian& guardian_;
    const Log log_;
    std::string_view mode_;  // of the lease; empty without one
    double seconds_ = 0;
    bool told_ = false;      // that the lease has begun
    bool held_ = false;      // fans are
    bool leftHeld_ = false;  // by a lease that has ended
};

}  // namespace ferovane
