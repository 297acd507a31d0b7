// Somebody who outlives this process and ends its tools when it is gone.
#pragma once

#include <sys/types.h>

namespace ferovane {

// Told of each tool around its run, on the thread that runs it. One tool runs at a time.
class ToolKeeper {
public:
    virtual ~ToolKeeper() = default;

    // Called before the tool's first instruction, with the process group that it leads. From here
    // until toolEnded() the group is killed when this process is gone. May throw: the tool is then
    // ended without having run, and toolEnded() is not called for it.
    virtual void toolStarted(pid_t group) = 0;

    // Called when nothing of the group is left.
    virtual void toolEnded() noexcept = 0;
};

}  // namespace ferovane
