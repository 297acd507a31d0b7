// Which fans are out of system control, remembered whatever becomes of the lease that took them.
#pragma once

#include <bitset>
#include <exception>
#include <string>
#include <vector>

#include "core/fan/cooling_hardware.h"
#include "core/fan/fan_keys.h"
#include "helper/fan_guardian.h"

namespace ferovane {

// A lease that waits looks so often, in seconds, whether somebody would hand its fans back.
inline constexpr double kGuardedSeconds = 0.25;

// Passes every operation on to the hardware. A fan is held from just before it is taken until the
// hardware has confirmed that it was given back; the guardian knows while any is.
//
// A fan that is somebody else's when it is to be taken is refused with a FanRefusal, here or by the
// hardware, and not handed back until returnHeld is called: between a lease's checks and its first
// switch lie a sample of the whole machine and the switching of other fans, and a lease that fails
// hands back every fan of its plan.
//
// One thread at a time, as the hardware.
class HeldFans : public CoolingHardware {
public:
    // Both must outlive this.
    HeldFans(CoolingHardware& hardware, FanGuardian& guardian);

    std::vector<FanReading> fans() override { return hardware_.fans(); }
    std::optional<double> target(int fan) override { return hardware_.target(fan); }
    void setTarget(int fan, double rpm) override { hardware_.setTarget(fan, rpm); }
    void setManual(int fan, bool enabled) override;

    // Called every kGuardedSeconds while a lease waits: throws the guardian's ScopeError when fans
    // are held and nobody would hand them back for us.
    void stayGuarded();

    // A lease reports why it ended, not whether its hand-back worked. This gives every fan that is
    // still held a second chance, and returns null once none is, else why not, and which. Needs no
    // memory.
    std::exception_ptr returnHeld() noexcept;

private:
    void take(int fan);
    void takeIfFree(int fan);
    void letGo(int fan);
    bool isSomebodyElses(int fan);
    std::string namingHeld(const std::exception& failure);

    CoolingHardware& hardware_;
    FanGuardian& guardian_;
    using Fans = std::bitset<FanLimits::kFans>;
    Fans held_;
    Fans refused_;  // somebody else's when they were to be taken
    // Memory for the hand-back and for its failure, taken before any fan is.
    std::vector<int> returning_;
    std::string lastWords_;
};

}  // namespace ferovane
