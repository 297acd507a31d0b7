// One running child process and whatever it starts.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <thread>

namespace ferovane {

// Owns a child that leads a process group of its own. While it is owned the child is not reaped, so
// that its process id, and with it the group's, cannot come to mean something else.
//
// A thread of its own waits for the end: that allows a deadline without polling and without taking
// part in the process's handling of SIGCHLD.
class ChildProcess {
public:
    // Throws ScopeError, with the child killed and reaped, when it cannot be watched.
    explicit ChildProcess(std::int32_t pid);
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess();  // as finish()

    // Waits for the child to end. Time during which the machine sleeps does not count.
    bool endsWithin(double seconds);

    void signalGroup(int signal) const;

    // Kills what is left of the group and reaps the child. The child's exit status, or the number
    // of the signal it died of; absent when it cannot be had. A child that does not even die when
    // killed (stuck in the kernel) is reaped later, whenever it ends.
    std::optional<std::int32_t> finish();

private:
    struct Watch;

    std::int32_t pid_;
    std::shared_ptr<Watch> watch_;
    std::thread watcher_;
};

}  // namespace ferovane
