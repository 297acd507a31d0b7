// The helper in this process with everything around it simulated: the Mac, its tools, the owner,
// the monitor at the other end of the pipes, threads and time. Every call to the outside has a
// number, at which a fault can strike.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "helper/commands.h"
#include "simulator/machine/controller.h"
#include "simulator/machine/simulated_mac.h"
#include "tests/faults/turns.h"

namespace ferovane::testing {

inline constexpr int kInputDescriptor = 1000000;  // beyond any that is open
inline constexpr int kOutputDescriptor = kInputDescriptor + 1;
inline constexpr int kErrorDescriptor = kInputDescriptor + 2;

enum class CallKind : std::uint8_t {
    before,   // none yet: how everything is found
    keyInfo,  // the controller's four
    keyRead,
    keyWrite,
    keyName,
    open,         // a connection to the controller
    probe,        // any other question to the machine, such as for the power source
    clock,        // the time, monotonic
    owner,        // whether the owner lives
    stopFile,     // whether the stop file exists
    poll,         // for the next request
    read,         // of a request
    write,        // of a reply, of the one-shot commands' output and of error texts
    threadStart,  // a lease's, the watchdog's
    tool,         // a switch of turbo
};
inline constexpr int kCallKinds = static_cast<int>(CallKind::tool) + 1;

// Several kinds of calls, a bit each.
using Calls = std::uint32_t;
constexpr Calls calls(std::initializer_list<CallKind> kinds) {
    Calls set = 0;
    for (const CallKind kind : kinds) {
        set |= Calls{1} << static_cast<unsigned>(kind);
    }
    return set;
}
inline constexpr Calls kController =
    calls({CallKind::keyInfo, CallKind::keyRead, CallKind::keyWrite, CallKind::keyName});

// One call of the code under test to the outside.
struct Call {
    CallKind kind;
    std::uint32_t key = 0;  // the controller's, packed; 0: none
    bool takes = false;     // puts a fan into manual mode
    bool returns = false;   // puts a fan into automatic mode

    // Whether other threads may run before it: then it holds no lock.
    bool mayBeWaitedFor() const { return kind != CallKind::clock && kind != CallKind::probe; }
    std::string keyText() const;
};

// What a write to the controller means for a fan. A write of the mask is one for each bit that
// changes, or that the write before it had set.
struct FanWrite {
    int fan;
    bool isMode;  // else its target
    double value;
    bool takes() const { return isMode && value == 1; }
    bool returns() const { return isMode && value != 1; }
};

struct FanState {
    bool manual, others;  // others: another program took it
    double mode, target, minimum, maximum;
};

// How a system call ends other than it should.
struct Mishap {
    int error = 0;          // errno
    bool nothing = false;   // poll, read and write: 0; a question: no answer
    bool oneByte = false;   // read and write: a short count
    bool hangs = false;     // a tool: until it is told to end, or given up
    double clockShift = 0;  // seconds, for this one look at the clock
    bool operator==(const Mishap&) const = default;
};

// What a request asks for, as far as its answer is foreseen.
enum class Ask : std::uint8_t { status, lease, automatic, turbo, refused, shutdown };

// What the monitor does next: sends a line, closes its end, or only lets time pass.
struct MonitorStep {
    std::string line = {};
    Ask ask = Ask::status;
    double after = 0.05;  // seconds after the reply to the last
    bool closes = false;
};

// A request that was sent: when, and after how many calls.
struct Asked {
    Ask ask;
    double at;
    std::size_t calls;
};

class FaultWorld {
public:
    // At most one at a time; it lives on the thread that runs the helper.
    FaultWorld(simulator::SimulatedMac& machine, bool appleSilicon, std::uint64_t orderSeed);
    ~FaultWorld();
    FaultWorld(const FaultWorld&) = delete;
    FaultWorld& operator=(const FaultWorld&) = delete;

    static FaultWorld* current();

    // Runs the helper to its end; its exit status, also when it ended from the watchdog.
    int run(std::vector<std::string> words);

    // ---- What the world does ---------------------------------------------------------------
    simulator::SimulatedMac& mac;
    simulator::Attachment attached;
    std::vector<MonitorStep> monitor;
    // In machine seconds.
    double ownerLeavesAt = Turns::kForever;
    double stopFileAt = Turns::kForever;
    double stopSignalAt = Turns::kForever;
    double farewellAt = Turns::kForever;  // when the monitor asked for the end of the session
    double pauseSlice = 0.2;  // seconds until a pause notices a signal; as in the shim's own

    Mishap mishap;                       // of the call that is being made
    std::map<CallKind, Mishap> lasting;  // of every call of a kind from now on
    void letTimePass(double seconds) { turns.sleep(seconds); }
    void sendNow(const std::string& line, Ask ask);  // the monitor's next line, at once
    void closeInputNow();
    void sendSignal(int number);  // one that nobody looks after ends what has not begun yet

    // ---- Who looks on ----------------------------------------------------------------------
    std::function<void(const Call& call)> beforeCall;
    std::function<void(const std::vector<FanWrite>& writes)> beforeFanWrite;
    std::function<void()> afterControllerCall;
    std::function<void(bool held)> toGuardian;              // what the guardian is told
    std::function<void(const std::string& line)> onOutput;  // a whole line was written
    std::function<void(const std::string& line)> onLog;     // the same to the system's log
    std::function<void()> atEnd;  // at the very end of the helper's process

    // ---- What the code under test did ------------------------------------------------------
    std::size_t calls = 0;
    std::vector<Asked> asked;  // so far, in the order of their replies
    std::string output, errors;
    std::string undelivered;       // what it tried to say where saying it failed
    bool muffled = false;          // what it had to say was not taken for as long as it waits
    bool guarded = false;          // the guardian was told that fans are held
    std::map<int, bool> handled;   // signals that the code under test has looked after
    std::optional<int> endedWith;  // by the watchdog, or by a session that could not end
    std::string told() const { return output + errors + undelivered; }

    // ---- The machine as it is --------------------------------------------------------------
    FanState fan(int fan);
    std::vector<int> fansTaken();  // in manual mode, and by no other program

    HelperEnvironment environment;
    Turns turns;

    // ---- Where the redirected calls arrive -------------------------------------------------
    Mishap enter(Call call);
    int controllerCall(const simulator::ControllerBlock& in, const std::function<int()>& real);
    static bool own(int descriptor) {
        return descriptor >= kInputDescriptor && descriptor <= kErrorDescriptor;
    }
    int poll(short events, short& revents, int milliseconds);
    long read(void* bytes, std::size_t size);
    long write(int descriptor, const void* bytes, std::size_t size);

private:
    void fillEnvironment(bool appleSilicon);
    bool stopped() { return mac.now() >= stopSignalAt; }
    bool inputReady() const { return !input_.empty() || inputClosed_; }
    bool awaitInput(double deadline);
    void takeMonitorStep();
    void endOfProcess(int status);
    std::vector<FanWrite> fanWrites(const simulator::ControllerBlock& write);
    std::vector<FanWrite> maskWrites(std::uint32_t mask);

    std::string input_;
    bool inputClosed_ = false;
    std::size_t nextStep_ = 0;
    std::optional<double> stepAt_;  // when it is taken; absent until it is waited for
    std::size_t checked_ = 0;       // bytes of output that were handed on
    std::uint32_t maskWritten_ = 0;
};

}  // namespace ferovane::testing
