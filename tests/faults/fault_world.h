// The helper in this process with everything around it simulated: the Mac, its tools, the owner,
// the monitor at the other end of the pipes, threads and time. Every call to the outside has a
// number, at which a fault can strike.
#pragma once

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "core/model/scope_error.h"
#include "core/power/power_settings_access.h"
#include "core/power/process_runner.h"
#include "helper/commands.h"
#include "shim/fv.h"
#include "simulator/machine/controller.h"
#include "simulator/machine/four_characters.h"
#include "simulator/machine/key_table.h"
#include "simulator/machine/machine.h"
#include "simulator/machine/simulated_mac.h"
#include "tests/faults/failing_memory.h"
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
    std::string keyText() const { return key != 0 ? simulator::unpacked(key) : ""; }
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

// Calls that leave the code under test.
template <class Act>
auto outside(Act act) {
    return [act](auto&&... arguments) {
        const OutsideProduct outside;
        return act(arguments...);
    };
}

class FaultWorld {
public:
    // At most one at a time; it lives on the thread that runs the helper.
    FaultWorld(simulator::SimulatedMac& machine, bool appleSilicon, std::uint64_t orderSeed)
        : mac(machine),
          attached(mac.attach()),
          turns([this] { return mac.now(); },
                [this, end = mac.now() + kNoEnd](double seconds) {
                    mac.advance(seconds);
                    if (mac.now() > end) {
                        Turns::giveUp("the helper does not end");
                    }
                },
                orderSeed) {
        fillEnvironment(appleSilicon);
        turns.onStart = [this] {
            if (const int error = enter({CallKind::threadStart}).error; error != 0) {
                throw std::system_error(error, std::generic_category());
            }
        };
        current_ = this;
    }

    ~FaultWorld() {
        turns.awaitOthers();  // a tool's watcher may outlive the helper's main thread
        current_ = nullptr;
    }

    FaultWorld(const FaultWorld&) = delete;
    FaultWorld& operator=(const FaultWorld&) = delete;

    static FaultWorld* current() { return current_; }

    // Runs the helper to its end; its exit status, also when it ended from the watchdog.
    int run(std::vector<std::string> words) {
        words.insert(words.begin(), "FerovaneHelper");
        monitor.push_back({.after = kIdleSeconds, .closes = true});
        int status = 0;
        {
            const InProduct inProduct;
            status = runHelper(words, environment);
        }
        endOfProcess(status);
        return endedWith.value_or(status);
    }

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

    // The monitor's next line, at once.
    void sendNow(const std::string& line, Ask ask) {
        input_ += line + "\n";
        asked.push_back({ask, mac.now(), calls});
        farewellAt = ask == Ask::shutdown ? std::min(farewellAt, mac.now()) : farewellAt;
        turns.notify(&input_);
    }

    void closeInputNow() {
        inputClosed_ = true;
        farewellAt = std::min(farewellAt, mac.now());
        turns.notify(&input_);
    }

    // One that nobody looks after ends what has not begun yet.
    void sendSignal(int number) { stopSignalAt = handled[number] ? 0 : stopSignalAt; }

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

    FanState fan(int fan) {
        return mac.machine().locked([fan](simulator::World& world) {
            const simulator::FanRecord& record = world.state().fans[fan];
            return FanState{record.mode == 1,
                            record.mode == 1 && record.holder == simulator::kHeldByOther,
                            static_cast<double>(record.mode),
                            record.target,
                            record.minimum,
                            record.maximum};
        });
    }

    // In manual mode, and by no other program.
    std::vector<int> fansTaken() {
        std::vector<int> fans;
        for (int i = 0; i < mac.fanCount(); ++i) {
            if (fan(i).manual && !fan(i).others) {
                fans.push_back(i);
            }
        }
        return fans;
    }

    HelperEnvironment environment;
    Turns turns;

    // ---- Where the redirected calls arrive -------------------------------------------------

    Mishap enter(Call call) {
        if (endedWith) {
            return {};
        }
        if (call.mayBeWaitedFor()) {
            turns.sometimesYield();
        }
        ++calls;
        beforeCall(call);
        const Mishap once = std::exchange(mishap, {});
        const auto always = lasting.find(call.kind);
        return once == Mishap{} && always != lasting.end() ? always->second : once;
    }

    int controllerCall(const simulator::ControllerBlock& in, const std::function<int()>& real) {
        constexpr int kRead = 5;
        constexpr CallKind kCommands[] = {CallKind::keyRead, CallKind::keyWrite, CallKind::keyName,
                                          CallKind::keyName, CallKind::keyInfo};
        Call call{kCommands[in.command - kRead], in.key};
        const std::vector<FanWrite> writes = fanWrites(in);
        for (const FanWrite& write : writes) {
            call.takes = call.takes || write.takes();
            call.returns = call.returns || write.returns();
        }
        enter(call);
        if (endedWith) {
            return real();
        }
        beforeFanWrite(writes);
        const int code = real();
        afterControllerCall();
        return code;
    }

    static bool own(int descriptor) {
        return descriptor >= kInputDescriptor && descriptor <= kErrorDescriptor;
    }

    int poll(short events, short& revents, int milliseconds) {
        const Mishap trouble = enter({CallKind::poll});
        if (trouble.error != 0) {
            errno = trouble.error;
            return -1;
        }
        if (trouble.nothing) {
            muffled = muffled || (events & POLLOUT) != 0;
            return 0;
        }
        if ((events & POLLIN) != 0 && !awaitInput(turns.now() + milliseconds / 1000.0)) {
            return 0;
        }
        revents = events;
        return 1;
    }

    long read(void* bytes, std::size_t size) {
        const Mishap trouble = enter({CallKind::read});
        if (trouble.error != 0) {
            errno = trouble.error;
            return -1;
        }
        if (trouble.nothing) {
            input_.clear();
            inputClosed_ = true;
        }
        const std::size_t count = std::min(trouble.oneByte ? 1 : size, input_.size());
        input_.copy(static_cast<char*>(bytes), count);
        input_.erase(0, count);
        return static_cast<long>(count);
    }

    long write(int descriptor, const void* bytes, std::size_t size) {
        const Mishap trouble = enter({CallKind::write});
        if (endedWith) {
            return static_cast<long>(size);
        }
        std::string& text = descriptor == kOutputDescriptor ? output : errors;
        if (trouble.error != 0 || trouble.nothing) {
            if (trouble.error != EINTR) {
                undelivered.append(static_cast<const char*>(bytes), size);
            }
            errno = trouble.error;
            return trouble.nothing ? 0 : -1;
        }
        const std::size_t count = trouble.oneByte ? 1 : size;
        text.append(static_cast<const char*>(bytes), count);
        for (std::size_t end; (end = output.find('\n', checked_)) != output.npos;) {
            onOutput(output.substr(checked_, end - checked_));
            checked_ = end + 1;
        }
        return static_cast<long>(count);
    }

private:
    static constexpr std::uint32_t kOwnerUid = 501;
    static constexpr double kIdleSeconds = 30;
    static constexpr double kToolSeconds = 2;
    static constexpr double kToolTimeOut = 30;
    static constexpr double kToolSlice = 0.5;  // after the first of them it has taken effect
    static constexpr double kNoEnd = 6 * 3600;

    class Guardian : public FanGuardian {
    public:
        explicit Guardian(FaultWorld& world) : world_(world) {}
        void fansHeld() override { tell(true); }
        void fansReturned() noexcept override { tell(false); }

    private:
        void tell(bool held) {
            const OutsideProduct outside;
            world_.guarded = held;
            world_.toGuardian(held);
        }
        FaultWorld& world_;
    };

    // Turbo and the tool that switches it, as far as its callers can tell.
    class TurboAccess : public PowerSettingsAccess {
    public:
        TurboAccess(FaultWorld& world, std::function<bool()> stop)
            : world_(world),
              stop_(std::move(stop)),
              undisturbed_(stop_ ? std::make_unique<TurboAccess>(world, nullptr) : nullptr) {}

        PowerConfiguration configuration() override { return {}; }
        void set(PowerSetting, PowerSource, std::int64_t) override {}
        std::optional<PowerSource> currentSource() override { return std::nullopt; }
        bool hasSleepBlockers() override { return false; }
        PowerSettingsAccess& undisturbed() override { return undisturbed_ ? *undisturbed_ : *this; }

        std::optional<std::int64_t> turboState() override {
            const OutsideProduct outside;
            if (world_.enter({CallKind::probe}).nothing) {
                return std::nullopt;
            }
            return world_.mac.value(simulator::Property::kExtensionLoaded) == 1 ? 1 : 0;
        }
        void setTurbo(bool disabled) override {
            bool stopped = false;
            Mishap mishap;
            {
                const OutsideProduct outside;
                mishap = world_.enter({CallKind::tool});
                double left = mishap.hangs ? kToolTimeOut : kToolSeconds;
                for (; left > 0 && !stopped; left -= kToolSlice) {
                    world_.turns.sleep(kToolSlice);
                    if (!mishap.nothing) {
                        world_.mac.set(simulator::Property::kExtensionLoaded, disabled ? 1 : 0);
                    }
                    stopped = stop_ && stop_();
                }
            }
            if (stopped) {
                throw WorkStopped();
            }
            if (mishap.nothing || mishap.error != 0) {
                throw ScopeError("睿频操作失败");
            }
        }

    private:
        FaultWorld& world_;
        std::function<bool()> stop_;
        std::unique_ptr<TurboAccess> undisturbed_;
    };

    void fillEnvironment(bool appleSilicon) {
        environment.realUser = kOwnerUid;
        environment.inputDescriptor = kInputDescriptor;
        environment.outputDescriptor = kOutputDescriptor;
        environment.errorDescriptor = kErrorDescriptor;
        environment.now =
            outside([this] { return mac.now() + enter({CallKind::clock}).clockShift; });
        environment.uptime = [this] {
            return mac.machine().locked([](simulator::World& world) {
                return world.state().machineSeconds - world.state().sleptSeconds;
            });
        };
        environment.pause = outside([this](double seconds) {
            const double end = turns.now() + seconds;
            while (!stopped() && turns.now() < end) {
                turns.sleep(std::min(end - turns.now(), pauseSlice));
            }
            return stopped();
        });
        environment.shouldStop = [this] { return stopped(); };
        environment.installStopHandlers = fv_install_stop_handlers;
        environment.ownerAlive = outside([this](std::int32_t, std::uint32_t) {
            enter({CallKind::owner});
            return mac.now() < ownerLeavesAt;
        });
        environment.fileExists = outside([this](const std::string& path) {
            enter({CallKind::stopFile});
            return path.starts_with("/tmp/ferovane-stop-") && mac.now() >= stopFileAt;
        });
        environment.useUtilityPriority = [] {};
        // Looks at stops less often than the helper does, so that a case is not mostly such looks.
        environment.timings.watchdogPoll = 1;
        environment.timings.leasePoll = 0.5;
        environment.log = outside([this](const LogLine& line) {
            if (!endedWith) {
                onLog(line.text());
            }
        });
        environment.endProcess = [this](int status) { endOfProcess(status); };
        environment.appleSilicon = appleSilicon;
        environment.makeGuardian = [this] { return std::make_unique<Guardian>(*this); };
        environment.makeSMC = [this, appleSilicon] {
            return std::make_unique<SMC>(SMC::Surroundings{
                environment.now, outside([this](double seconds) { turns.sleep(seconds); }),
                appleSilicon});
        };
        environment.makePowerAccess = [this](ToolKeeper&, std::function<bool()> stop) {
            return std::make_unique<TurboAccess>(*this, std::move(stop));
        };
        environment.makeSampler = [] { return std::make_unique<HardwareSampler>(); };
    }

    // What happens from here on is only the way out of a process that is gone already.
    void endOfProcess(int status) {
        if (endedWith) {
            return;
        }
        const OutsideProduct outside;
        endedWith = status;
        FailingMemory::relent();
        atEnd();
        mac.clearFaults();
        lasting.clear();
        mishap = {};
        closeInputNow();
    }

    std::vector<FanWrite> fanWrites(const simulator::ControllerBlock& write) {
        const std::string key = simulator::unpacked(write.key);
        if (write.command != simulator::kWriteCommand) {
            return {};
        }
        const std::optional<double> number = mac.machine().locked([&](simulator::World& world) {
            const simulator::KeyRecord* record = simulator::KeyTable::find(world, write.key);
            // A fan that has vanished has no keys; its modes have one byte.
            return record != nullptr ? simulator::KeyTable::decode(*record, write.data)
                                     : std::optional<double>(write.data[0]);
        });
        if (!number) {
            return {};
        }
        if (key == "FS! ") {
            return maskWrites(static_cast<std::uint32_t>(*number));
        }
        return {{key[1] - '0', key.substr(2) != "Tg", *number}};
    }

    std::vector<FanWrite> maskWrites(std::uint32_t mask) {
        std::vector<FanWrite> writes;
        for (int i = 0; i < mac.fanCount(); ++i) {
            const bool manual = (mask >> i & 1) != 0;
            const bool before = (maskWritten_ >> i & 1) != 0;
            if (manual != fan(i).manual || (before && !manual)) {
                writes.push_back({i, true, manual ? 1.0 : 0.0});
            }
        }
        maskWritten_ = mask;
        return writes;
    }

    void takeMonitorStep() {
        const MonitorStep& step = monitor[nextStep_++];
        if (step.closes) {
            closeInputNow();
        } else if (!step.line.empty()) {
            sendNow(step.line, step.ask);
        }
    }

    // A wait that is cut short does not keep the monitor waiting for longer.
    bool awaitInput(double deadline) {
        while (!inputReady()) {
            if (turns.now() >= deadline) {
                return false;
            }
            if (!stepAt_) {
                stepAt_ = turns.now() + monitor[nextStep_].after;
            }
            if (!turns.waitFor(&input_, std::min(*stepAt_, deadline)) && turns.now() >= *stepAt_) {
                takeMonitorStep();
                stepAt_.reset();
            }
        }
        stepAt_.reset();
        return true;
    }

    bool stopped() { return mac.now() >= stopSignalAt; }
    bool inputReady() const { return !input_.empty() || inputClosed_; }

    inline static FaultWorld* current_ = nullptr;
    std::string input_;
    bool inputClosed_ = false;
    std::size_t nextStep_ = 0;
    std::optional<double> stepAt_;  // when it is taken; absent until it is waited for
    std::size_t checked_ = 0;       // bytes of output that were handed on
    std::uint32_t maskWritten_ = 0;
};

}  // namespace ferovane::testing
