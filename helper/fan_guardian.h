// Who hands the fans back, and ends the running tool, when the helper no longer can.
#pragma once

#include "core/power/tool_keeper.h"

namespace ferovane {

// Told what is held, so that the end of the process while fans are held does not go unnoticed.
class FanGuardian : public ToolKeeper {
public:
    // Before each fan is taken, and in each round while fans are held: on return a living guardian
    // knows. Throws ScopeError when there is none and none can be started; no fan may be taken
    // then, nor be held any longer. Takes milliseconds, or seconds where a start does.
    virtual void fansHeld() = 0;

    // After every fan was confirmed to be back under system control.
    virtual void fansReturned() noexcept = 0;

    // Nobody here drives a fan any more: what is still held is handed back from outside, from now
    // on and not only at our end.
    virtual void takeOver() noexcept {}

    void toolStarted(pid_t /*group*/) override {}
    void toolEnded() noexcept override {}
};

}  // namespace ferovane
