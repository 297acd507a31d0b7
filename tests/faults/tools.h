// The system's two tools as processes on virtual time.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "simulator/machine/simulated_mac.h"

namespace ferovane::testing {

// How one run of a tool goes; as it should when nothing is set.
struct ToolMishap {
    bool fails = false;        // exit status 1
    bool noEffect = false;     // changes nothing
    bool hangs = false;        // until it is told to end
    bool ignoresTerm = false;  // until it is killed
    bool garbage = false;      // prints what is no text
    bool prints = true;        // anything at all
    double seconds = 0.3;      // until it ends
};

class Tools {
public:
    explicit Tools(simulator::SimulatedMac& mac) : mac_(mac) {}

    std::optional<ToolMishap> mishap;  // of the next run
    ToolMishap lasting;                // of every other run
    int runs = 0;

    static bool isTool(std::int64_t pid) { return pid >= kFirstPid; }

    // The calls by which the code under test starts, watches and ends a process.
    std::int32_t start(const std::string& path, const std::vector<std::string>& words, int output);
    bool isNew(std::int64_t pid);  // once
    bool hasEnded(std::int64_t pid);
    int reap(std::int64_t pid);  // the status as waitpid tells it
    void signal(std::int64_t pid, int number);

private:
    static constexpr std::int32_t kFirstPid = 2000000000;

    struct Process {
        std::string path;
        std::vector<std::string> words;
        int output;
        ToolMishap mishap;
        double endsAt;
        bool lookedAt = false, ended = false;
        int status = 0;
    };

    void finish(Process& process);
    int work(const Process& process, std::string& text);
    int pmset(const Process& process, std::string& text);
    int kmutil(const Process& process, std::string& text);
    void end(Process& process, int status);

    simulator::SimulatedMac& mac_;
    std::map<std::int64_t, Process> processes_;
};

}  // namespace ferovane::testing
