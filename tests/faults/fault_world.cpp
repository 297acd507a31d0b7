#include "tests/faults/fault_world.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "helper/system_power_access.h"
#include "shim/fv.h"
#include "tests/faults/failing_memory.h"
#include "tests/faults/product_scope.h"

namespace ferovane::testing {
namespace {

constexpr std::int32_t kOwnerPid = 4711;
constexpr std::uint32_t kOwnerUid = 501;

// A monitor that has nothing left to say closes its end some time later.
constexpr double kIdleSeconds = 30;

FaultWorld* theWorld = nullptr;

class Guardian : public FanGuardian {
public:
    explicit Guardian(std::string& record) : record_(record) {}
    void fansHeld() override { tell("held "); }
    void fansReturned() noexcept override { tell("returned "); }

private:
    void tell(const char* word) {
        const OutsideProduct outside;
        record_ += word;
    }
    std::string& record_;
};

}  // namespace

FaultWorld* FaultWorld::current() {
    return theWorld;
}

FaultWorld::FaultWorld(simulator::SimulatedMac machine, bool appleSilicon, std::uint64_t orderSeed)
    : mac(std::move(machine)),
      attached(mac.attach()),
      tools(mac),
      spy(mac),
      turns([this] { return mac.now(); }, [this](double seconds) { mac.advance(seconds); },
            orderSeed) {
    fillEnvironment(appleSilicon);
    theWorld = this;
}

FaultWorld::~FaultWorld() {
    theWorld = nullptr;
}

simulator::SimulatedMac FaultWorld::takeMachine() {
    turns.awaitOthers();  // a tool's watcher may outlive the helper's main thread
    return std::move(mac);
}

void FaultWorld::fillEnvironment(bool appleSilicon) {
    environment.effectiveUser = 0;
    environment.realUser = kOwnerUid;
    environment.inputDescriptor = kInputDescriptor;
    environment.outputDescriptor = kOutputDescriptor;
    environment.errorDescriptor = kErrorDescriptor;
    environment.now = environment.uptime = [this] {
        const OutsideProduct outside;
        return mac.now() + enter({CallKind::clock}).clockShift;
    };
    environment.pause = [this](double seconds) {
        const OutsideProduct outside;
        const double end = turns.now() + seconds;
        while (!stopped() && turns.now() < end) {
            turns.sleep(std::min(end - turns.now(), pauseSlice));
        }
        return stopped();
    };
    environment.shouldStop = [this] { return stopped(); };
    environment.installStopHandlers = fv_install_stop_handlers;
    environment.ownerAlive = [this](std::int32_t pid, std::uint32_t uid) {
        const OutsideProduct outside;
        enter({CallKind::owner});
        return ownerAlive && mac.now() < ownerLeavesAt && pid == kOwnerPid && uid == kOwnerUid;
    };
    environment.fileExists = [this](const std::string& path) {
        const OutsideProduct outside;
        enter({CallKind::stopFile});
        return files.count(path) > 0 || mac.now() >= stopFileAt;
    };
    environment.useUtilityPriority = [] {};
    // Looks at stops less often than the helper does, so that a case is not mostly such looks.
    environment.timings.watchdogPoll = 0.5;
    environment.timings.leasePoll = 0.5;
    environment.endProcess = [this](int status) { endOfProcess(status); };
    environment.appleSilicon = appleSilicon;
    environment.makeGuardian = [this] { return std::make_unique<Guardian>(guardianRecord); };
    environment.makeSMC = [this, appleSilicon] {
        return std::make_unique<SMC>(SMC::Surroundings{environment.now,
                                                       [this](double seconds) {
                                                           const OutsideProduct outside;
                                                           turns.sleep(seconds);
                                                       },
                                                       appleSilicon});
    };
    environment.makePowerAccess = [](ToolKeeper& keeper, std::function<bool()> stop) {
        return std::make_unique<SystemPowerAccess>(keeper, std::move(stop));
    };
    environment.makeSampler = [] { return std::make_unique<HardwareSampler>(); };
}

int FaultWorld::run(std::vector<std::string> words) {
    words.insert(words.begin(), "FerovaneHelper");
    int status = 0;
    {
        const InProduct inProduct;
        status = runHelper(words, environment);
    }
    endOfProcess(status);
    return endedWith.value_or(status);
}

// What happens from here on is only the way out of a process that is gone already.
void FaultWorld::endOfProcess(int status) {
    if (ended_) {
        return;
    }
    const OutsideProduct outside;
    ended_ = true;
    endedWith = status;
    FailingMemory::relent();
    if (atEnd) {
        atEnd();
    }
    mac.clearFaults();
    lasting.clear();
    mishap = {};
    tools.lasting = {};
    tools.mishap.reset();
    closeInputNow();
}

Mishap FaultWorld::enter(Call call) {
    if (ended_) {
        return {};
    }
    if (call.mayPause()) {
        turns.sometimesYield();
    }
    calls.push_back(call);
    if (beforeCall) {
        beforeCall(calls.size(), call);
    }
    const Mishap once = std::exchange(mishap, {});
    const auto always = lasting.find(call.kind);
    return once == Mishap{} && always != lasting.end() ? always->second : once;
}

// ---- The monitor
// ---------------------------------------------------------------------------------

void FaultWorld::sendNow(const std::string& line) {
    input_ += line + "\n";
    turns.notify(&input_);
}

void FaultWorld::closeInputNow() {
    inputClosed_ = true;
    turns.notify(&input_);
}

// One that nobody has looked after ends the process: where no fan is held, that is nothing to try.
void FaultWorld::sendSignal(int number) {
    if (handled[number]) {
        stopSignal = true;
    } else {
        diedHolding = diedHolding || !spy.fansLeftManual().empty();
    }
}

void FaultWorld::takeMonitorStep() {
    if (nextStep_ == monitor.size()) {
        inputClosed_ = true;
        return;
    }
    const MonitorStep& step = monitor[nextStep_++];
    if (step.closes) {
        inputClosed_ = true;
    } else if (!step.line.empty()) {
        input_ += step.line + "\n";
    }
}

// A wait that is cut short does not keep the monitor waiting for longer.
bool FaultWorld::awaitInput(double deadline) {
    while (!inputReady()) {
        if (turns.now() >= deadline) {
            return false;
        }
        if (!stepAt_) {
            stepAt_ = turns.now() +
                      (nextStep_ < monitor.size() ? monitor[nextStep_].after : kIdleSeconds);
        }
        if (!turns.waitFor(&input_, std::min(*stepAt_, deadline)) && turns.now() >= *stepAt_) {
            takeMonitorStep();
            stepAt_.reset();
        }
    }
    stepAt_.reset();
    return true;
}

int FaultWorld::poll(int, short events, short& revents, int milliseconds) {
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

long FaultWorld::read(void* bytes, std::size_t size) {
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

long FaultWorld::write(int descriptor, const void* bytes, std::size_t size) {
    const Mishap trouble = enter({CallKind::write});
    if (ended_) {
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
    if (descriptor == kOutputDescriptor && onOutput) {
        while (true) {
            const std::size_t end = output.find('\n', checked_);
            if (end == std::string::npos) {
                break;
            }
            onOutput(output.substr(checked_, end - checked_));
            checked_ = end + 1;
        }
    }
    return static_cast<long>(count);
}

}  // namespace ferovane::testing
