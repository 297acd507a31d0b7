// A process beside the helper that outlives its crash.
#pragma once

#include <sys/types.h>

#include <string>

#include "helper/fan_guardian.h"

namespace ferovane {

// Forks the guardian when it is made: a process in a session of its own that holds nothing of the
// helper but the reading end of a pipe, can be signalled by nobody but root, and sleeps in a read.
// When the pipe ends while fans are held, because the helper was killed or crashed, it runs the
// helper's own file with the word "auto", again and again for a bounded number of times, and tells
// the system log if that never succeeded. A helper that is merely stopped keeps the pipe open, and
// nothing happens.
//
// Ignores SIGPIPE for the whole process. Made before the controller is opened and before any thread
// is started. Used by one thread at a time. Its end releases the guardian; fans still held then are
// handed back by it.
class ProcessGuardian : public FanGuardian {
public:
    // helperPath: the helper's own file. Throws ScopeError when no process can be started.
    explicit ProcessGuardian(std::string helperPath);
    ~ProcessGuardian() override;
    ProcessGuardian(const ProcessGuardian&) = delete;
    ProcessGuardian& operator=(const ProcessGuardian&) = delete;

    // Starts another guardian first when the one before was killed.
    void fansHeld() override;
    void fansReturned() noexcept override;

private:
    void start();
    void abandon() noexcept;
    void release() noexcept;
    bool tell(char word) noexcept;

    std::string helperPath_;
    pid_t pid_ = -1;
    int pipe_ = -1;  // writing end; closed in every tool that the helper runs
    bool held_ = false;
};

}  // namespace ferovane
