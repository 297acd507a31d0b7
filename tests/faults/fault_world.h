// The helper in this process with everything around it simulated: the Mac, its tools, the owner,
// the monitor at the other end of the pipes, threads and time. Every call to the outside has a
// number, at which a fault can strike.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "helper/commands.h"
#include "simulator/machine/simulated_mac.h"
#include "tests/faults/call.h"
#include "tests/faults/control_spy.h"
#include "tests/faults/tools.h"
#include "tests/faults/turns.h"

namespace ferovane::testing {

inline constexpr int kInputDescriptor = 1000000;  // beyond any that is open
inline constexpr int kOutputDescriptor = kInputDescriptor + 1;
inline constexpr int kErrorDescriptor = kInputDescriptor + 2;

// How a system call ends other than it should.
struct Mishap {
    int error = 0;          // errno
    bool nothing = false;   // poll, read and write: 0; a question: no answer
    bool oneByte = false;   // read and write: a short count
    double clockShift = 0;  // seconds, for this one look at the clock
    bool operator==(const Mishap&) const = default;
};

// What the monitor does next: sends a line, closes its end, or only lets time pass.
struct MonitorStep {
    std::string line;
    double after = 0.05;  // seconds after the reply to the last
    bool closes = false;
};

class FaultWorld {
public:
    // At most one at a time; it lives on the thread that runs the helper.
    FaultWorld(simulator::SimulatedMac machine, bool appleSilicon, std::uint64_t orderSeed = 0);
    ~FaultWorld();
    FaultWorld(const FaultWorld&) = delete;
    FaultWorld& operator=(const FaultWorld&) = delete;

    static FaultWorld* current();

    // Runs the helper to its end; its exit status, also when it ended from the watchdog.
    int run(std::vector<std::string> words);

    // The machine as it is now, when the helper has ended; this world is of no more use.
    simulator::SimulatedMac takeMachine();

    // ---- What the world does ---------------------------------------------------------------
    simulator::SimulatedMac mac;
    simulator::Attachment attached;
    std::vector<MonitorStep> monitor;
    std::set<std::string> files;
    bool ownerAlive = true;
    bool stopSignal = false;
    // The same at a time to come, in machine seconds.
    double ownerLeavesAt = Turns::kForever;
    double stopFileAt = Turns::kForever;
    double stopSignalAt = Turns::kForever;
    double pauseSlice = 0.2;  // seconds until a pause notices a signal; as in the shim's own
    Tools tools;

    // Asked before every call with its number, counted from 1.
    std::function<void(std::uint64_t number, const Call& call)> beforeCall;
    Mishap mishap;                       // of the call that is being made
    std::map<CallKind, Mishap> lasting;  // of every call of a kind from now on
    void letTimePass(double seconds) { turns.sleep(seconds); }
    void sendNow(const std::string& line);  // the monitor's next line, at once
    void closeInputNow();
    void sendSignal(int number);

    // ---- What the code under test did ------------------------------------------------------
    std::vector<Call> calls;
    std::string output, errors;
    std::string undelivered;  // what it tried to say where saying it failed
    bool muffled = false;     // what it had to say was not taken for as long as it waits
    ControlSpy spy;
    std::string guardianRecord;
    std::map<int, bool> handled;   // signals that the code under test has looked after
    bool diedHolding = false;      // a signal that it had not would have ended it with fans held
    std::set<int> othersSince;     // fans that another program took while the helper ran
    bool deaf = false;             // a question to the machine got no answer
    std::optional<int> endedWith;  // by the watchdog, or by a session that could not end
    std::function<void()> atEnd;   // at the very end of the helper's process
    std::function<void(const std::string& line)> onOutput;  // a whole line was written

    HelperEnvironment environment;
    Turns turns;

    // ---- Where the redirected calls arrive -------------------------------------------------
    Mishap enter(Call call);
    bool own(int descriptor) const {
        return descriptor >= kInputDescriptor && descriptor <= kErrorDescriptor;
    }
    int poll(int descriptor, short events, short& revents, int milliseconds);
    long read(void* bytes, std::size_t size);
    long write(int descriptor, const void* bytes, std::size_t size);
    std::uint32_t entropy() { return ++drawn_; }

private:
    void fillEnvironment(bool appleSilicon);
    bool stopped() { return stopSignal || mac.now() >= stopSignalAt; }
    bool inputReady() const { return !input_.empty() || inputClosed_; }
    bool awaitInput(double deadline);
    void takeMonitorStep();
    void endOfProcess(int status);

    std::string input_;
    bool inputClosed_ = false;
    bool ended_ = false;
    std::size_t nextStep_ = 0;
    std::optional<double> stepAt_;  // when it is taken; absent until it is waited for
    std::uint32_t drawn_ = 0;
    std::size_t checked_ = 0;  // bytes of output that were handed on
};

}  // namespace ferovane::testing
