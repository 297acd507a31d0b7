// The helper's process in this one: a simulated Mac, its clock, an owner, and both outputs.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "helper/commands.h"
#include "simulator/machine/simulated_mac.h"
#include "tests/power/fake_power_access.h"

namespace ferovane::testing {

inline constexpr std::int32_t kOwnerPid = 4711;
inline constexpr std::uint32_t kOwnerUid = 501;
inline const std::string kSession = "6f1c2f0e-7a44-4d2b-9a3d-0e6c9bb0a1f2";

// Passes everything on to an access that outlives the helper's own.
class BorrowedPowerAccess : public PowerSettingsAccess {
public:
    explicit BorrowedPowerAccess(PowerSettingsAccess& access) : access_(access) {}
    PowerConfiguration configuration() override { return access_.configuration(); }
    void set(PowerSetting setting, PowerSource source, std::int64_t value) override {
        access_.set(setting, source, value);
    }
    std::optional<PowerSource> currentSource() override { return access_.currentSource(); }
    bool hasSleepBlockers() override { return access_.hasSleepBlockers(); }
    std::optional<std::int64_t> turboState() override { return access_.turboState(); }
    void setTurbo(bool disabled) override { access_.setTurbo(disabled); }
    PowerSettingsAccess& undisturbed() override { return access_.undisturbed(); }

private:
    PowerSettingsAccess& access_;
};

// What the guardian was told, in a word per change.
class RecordingGuardian : public FanGuardian {
public:
    RecordingGuardian(std::string& record, const std::atomic<bool>& lost)
        : record_(record), lost_(lost) {}
    void fansHeld() override { lost_ ? throw ScopeError("无人守护") : tell("held "); }
    void fansReturned() noexcept override { tell("returned "); }
    void takeOver() noexcept override { tell("over "); }

private:
    void tell(const char* word) {
        if (!record_.ends_with(word)) {
            record_ += word;
        }
    }
    std::string& record_;
    const std::atomic<bool>& lost_;
};

// A file without a name that collects what is written to a descriptor.
class CollectedOutput {
public:
    CollectedOutput() : file_(std::tmpfile()) {}
    ~CollectedOutput() { std::fclose(file_); }
    CollectedOutput(const CollectedOutput&) = delete;
    CollectedOutput& operator=(const CollectedOutput&) = delete;

    int descriptor() const { return ::fileno(file_); }
    std::string text() const {
        std::string text;
        std::rewind(file_);
        for (int c = std::fgetc(file_); c != EOF; c = std::fgetc(file_)) {
            text += static_cast<char>(c);
        }
        return text;
    }

private:
    std::FILE* file_;
};

// A command line's words, which spaces separate; none in an empty one.
inline std::vector<std::string> wordsOf(const std::string& line) {
    std::istringstream words(line);
    return {std::istream_iterator<std::string>(words), {}};
}

struct HelperWorld {
    explicit HelperWorld(simulator::SimulatedMac machine, bool appleSilicon = false)
        : mac(std::move(machine)), attached(mac.attach()) {
        environment.effectiveUser = 0;
        environment.realUser = kOwnerUid;
        environment.outputDescriptor = output.descriptor();
        environment.errorDescriptor = errors.descriptor();
        environment.now = [this] { return mac.now(); };
        environment.uptime = [this] { return mac.now(); };
        environment.pause = [this](double seconds) {
            mac.advance(seconds);
            ++pauses;
            if (onPause) {
                onPause();
            }
            return stopFlag.load();
        };
        environment.shouldStop = [this] { return stopFlag.load(); };
        environment.installStopHandlers = [] {};
        environment.ownerAlive = [this](std::int32_t pid, std::uint32_t uid) {
            return ownerAlive && pid == kOwnerPid && uid == kOwnerUid;
        };
        environment.fileExists = [](const std::string&) { return false; };
        environment.useUtilityPriority = [] {};
        environment.endProcess = [](int) {};
        environment.appleSilicon = appleSilicon;
        environment.makeGuardian = [this] {
            return std::make_unique<RecordingGuardian>(guardianRecord, guardianLost);
        };
        environment.makeSMC = [this, appleSilicon] {
            return std::make_unique<SMC>(
                SMC::Surroundings{[this] { return mac.now(); },
                                  [this](double seconds) { mac.advance(seconds); }, appleSilicon});
        };
        environment.makeSampler = [] { return std::make_unique<HardwareSampler>(); };
        environment.makePowerAccess = [this](ToolKeeper&, std::function<bool()>) {
            return std::make_unique<BorrowedPowerAccess>(power);
        };
    }

    int run(std::vector<std::string> words) {
        words.insert(words.begin(), "FerovaneHelper");
        return runHelper(words, environment);
    }
    int cool(const std::string& word = "cooling") { return run({word, "4711", "501", kSession}); }
    int profile(const std::string& mode, const std::string& curve = "-") {
        return run({"profile", "4711", "501", kSession, mode, curve});
    }

    simulator::SimulatedMac mac;
    simulator::Attachment attached;
    FakePowerAccess power;
    HelperEnvironment environment;
    CollectedOutput output, errors;
    std::atomic<bool> stopFlag = false;
    std::atomic<bool> ownerAlive = true;
    int pauses = 0;
    std::function<void()> onPause;  // after each pause of a command
    std::string guardianRecord;
    std::atomic<bool> guardianLost = false;
};

}  // namespace ferovane::testing
