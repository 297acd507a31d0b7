// Which fans are out of system control, remembered whatever becomes of the lease that took them.
#pragma once

#include <exception>
#include <set>
#include <vector>

#include "core/fan/cooling_hardware.h"
#include "helper/fan_guardian.h"

namespace ferovane {

// Passes every operation on to the hardware. A fan is held from just before it is taken until the
// hardware has confirmed that it was given back; the guardian knows while any is.
class HeldFans : public CoolingHardware {
public:
    // Both must outlive this.
    HeldFans(CoolingHardware& hardware, FanGuardian& guardian)
        : hardware_(hardware), guardian_(guardian) {}

    std::vector<FanReading> fans() override { return hardware_.fans(); }
    std::optional<double> target(int fan) override { return hardware_.target(fan); }
    void setTarget(int fan, double rpm) override { hardware_.setTarget(fan, rpm); }
    void setManual(int fan, bool enabled) override;

    // A lease reports why it ended, not whether its hand-back worked. This gives every fan that is
    // still held a second chance, and returns null once none is, else why not.
    std::exception_ptr returnHeld() noexcept;

private:
    CoolingHardware& hardware_;
    FanGuardian& guardian_;
    std::set<int> held_;
};

}  // namespace ferovane
