#include "tests/faults/fault_world.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "core/model/scope_error.h"
#include "core/power/power_settings_access.h"
#include "core/power/process_runner.h"
#include "shim/fv.h"
#include "simulator/machine/four_characters.h"
#include "simulator/machine/key_table.h"
#include "simulator/machine/machine.h"
#include "tests/faults/failing_memory.h"

namespace ferovane::testing {
namespace {

constexpr std::uint32_t kOwnerUid = 501;

// A monitor that has nothing left to say closes its end some time later.
constexpr double kIdleSeconds = 30;

constexpr double kToolSeconds = 2;
constexpr double kToolTimeOut = 30;
constexpr double kToolSlice = 0.5;  // after the first of them it has taken effect
constexpr double kNoEnd = 6 * 3600;

FaultWorld* theWorld = nullptr;

// Calls that leave the code under test.
template <class Act>
auto outside(Act act) {
    return [act](auto&&... arguments) {
        const OutsideProduct outside;
        return act(arguments...);
    };
}

class Guardian : public FanGuardian {
public:
    explicit Guardian(FaultWorld& world) : world_(world) {}
    void fansHeld() override { tell(true); }
    void fansReturned() noexcept override { tell(false); }

private:
    void tell(bool held) {
        const OutsideProduct outside;
        world_.guarded = held;
        if (world_.toGuardian) {
            world_.toGuardian(held);
        }
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

}  // namespace

FaultWorld* FaultWorld::current() {
    return theWorld;
}

std::string Call::keyText() const {
    return key != 0 ? simulator::unpacked(key) : "";
}

FaultWorld::FaultWorld(simulator::SimulatedMac& machine, bool appleSilicon, std::uint64_t orderSeed)
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
    theWorld = this;
}

FaultWorld::~FaultWorld() {
    turns.awaitOthers();  // a tool's watcher may outlive the helper's main thread
    theWorld = nullptr;
}

void FaultWorld::fillEnvironment(bool appleSilicon) {
    environment.effectiveUser = 0;
    environment.realUser = kOwnerUid;
    environment.inputDescriptor = kInputDescriptor;
    environment.outputDescriptor = kOutputDescriptor;
    environment.errorDescriptor = kErrorDescriptor;
    environment.now = outside([this] { return mac.now() + enter({CallKind::clock}).clockShift; });
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
        if (onLog && !endedWith) {
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
    if (endedWith) {
        return;
    }
    const OutsideProduct outside;
    endedWith = status;
    FailingMemory::relent();
    if (atEnd) {
        atEnd();
    }
    mac.clearFaults();
    lasting.clear();
    mishap = {};
    closeInputNow();
}

Mishap FaultWorld::enter(Call call) {
    if (endedWith) {
        return {};
    }
    if (call.mayBeWaitedFor()) {
        turns.sometimesYield();
    }
    ++calls;
    if (beforeCall) {
        beforeCall(call);
    }
    const Mishap once = std::exchange(mishap, {});
    const auto always = lasting.find(call.kind);
    return once == Mishap{} && always != lasting.end() ? always->second : once;
}

// ---- The machine ------------------------------------------------------------------------------

FanState FaultWorld::fan(int fan) {
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

std::vector<int> FaultWorld::fansTaken() {
    return mac.machine().locked([](simulator::World& world) {
        std::vector<int> fans;
        const simulator::WorldState& state = world.state();
        for (std::uint32_t i = 0; i < state.fanCount; ++i) {
            if (state.fans[i].mode == 1 && state.fans[i].holder != simulator::kHeldByOther) {
                fans.push_back(static_cast<int>(i));
            }
        }
        return fans;
    });
}

std::vector<FanWrite> FaultWorld::fanWrites(const simulator::ControllerBlock& write) {
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

std::vector<FanWrite> FaultWorld::maskWrites(std::uint32_t mask) {
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

int FaultWorld::controllerCall(const simulator::ControllerBlock& in,
                               const std::function<int()>& real) {
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
    if (!endedWith && beforeFanWrite) {
        beforeFanWrite(writes);
    }
    const int code = real();
    if (!endedWith && afterControllerCall) {
        afterControllerCall();
    }
    return code;
}

// ---- The monitor ------------------------------------------------------------------------------

void FaultWorld::sendNow(const std::string& line, Ask ask) {
    input_ += line + "\n";
    asked.push_back({ask, mac.now(), calls});
    farewellAt = ask == Ask::shutdown ? std::min(farewellAt, mac.now()) : farewellAt;
    turns.notify(&input_);
}

void FaultWorld::closeInputNow() {
    inputClosed_ = true;
    farewellAt = std::min(farewellAt, mac.now());
    turns.notify(&input_);
}

void FaultWorld::sendSignal(int number) {
    stopSignalAt = handled[number] ? 0 : stopSignalAt;
}

void FaultWorld::takeMonitorStep() {
    const bool isOver = nextStep_ == monitor.size();
    const MonitorStep step = isOver ? MonitorStep{.closes = true} : monitor[nextStep_++];
    if (step.closes) {
        closeInputNow();
    } else if (!step.line.empty()) {
        sendNow(step.line, step.ask);
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

int FaultWorld::poll(short events, short& revents, int milliseconds) {
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
