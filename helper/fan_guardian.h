// Who hands the fans back when the helper no longer can.
#pragma once

namespace ferovane {

// Told what is held, so that the end of the process while fans are held does not go unnoticed.
class FanGuardian {
public:
    virtual ~FanGuardian() = default;

    // Before the first fan is taken. Throws ScopeError when nobody stands by; no fan may be taken
    // then.
    virtual void fansHeld() = 0;

    // After every fan was confirmed to be back under system control.
    virtual void fansReturned() noexcept = 0;
};

}  // namespace ferovane
