// The helper's arguments. The input: a byte of circumstances, then words, each ended by a NUL.
//
// One simulated Mac serves all inputs; every command has to leave its fans to the system.
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "core/model/number_text.h"
#include "core/model/utf8.h"
#include "fuzz/input.h"
#include "fuzz/property.h"
#include "helper/commands.h"
#include "simulator/machine/simulated_mac.h"
#include "tests/power/fake_power_access.h"

namespace {

using namespace ferovane;
using fuzzing::require;

constexpr std::int32_t kOwnerPid = 4711;
constexpr std::uint32_t kOwnerUid = 501;

struct Circumstances {
    bool root, ownerAlive, stopped;
};

class Output {
public:
    int descriptor() const { return fileno(file_); }
    void clear() const {
        require(ftruncate(descriptor(), 0) == 0 && lseek(descriptor(), 0, SEEK_SET) == 0,
                "output can be cleared");
    }
    std::string text() const {
        std::string text(static_cast<std::size_t>(lseek(descriptor(), 0, SEEK_CUR)), '\0');
        const auto count = pread(descriptor(), text.data(), text.size(), 0);
        require(count == static_cast<ssize_t>(text.size()), "output can be read");
        return text;
    }

private:
    std::FILE* file_ = std::tmpfile();
};

class SilentGuardian : public FanGuardian {
public:
    void fansHeld() override {}
    void fansReturned() noexcept override {}
};

// Each command gets an access of its own, all of them the same settings.
class SharedPowerAccess : public testing::FakePowerAccess {
public:
    explicit SharedPowerAccess(std::vector<std::string>& all) : all_(all) {}
    ~SharedPowerAccess() override { all_.insert(all_.end(), writes.begin(), writes.end()); }

private:
    std::vector<std::string>& all_;
};

struct World {
    simulator::SimulatedMac mac = simulator::intelMac(2);
    simulator::Attachment attached = mac.attach();
    Output output, errors;
    std::FILE* nothing = std::fopen("/dev/null", "r");
    std::vector<std::string> powerWrites;
    int pauses = 0;

    int run(const std::vector<std::string>& words, const Circumstances& circumstances) {
        output.clear();
        errors.clear();
        powerWrites.clear();
        mac.clearJournal();
        mac.clearCalls();
        pauses = 0;
        return runHelper(words, environment(circumstances));
    }

private:
    HelperEnvironment environment(const Circumstances& circumstances) {
        // A lease of half an hour tells no more than one of a few rounds.
        constexpr int kMostPauses = 3;
        const auto alive = [circumstances](std::int32_t pid, std::uint32_t uid) {
            return circumstances.ownerAlive && pid == kOwnerPid && uid == kOwnerUid;
        };
        const auto stopped = [this, circumstances] {
            return circumstances.stopped || pauses >= kMostPauses;
        };
        HelperEnvironment made;
        made.effectiveUser = circumstances.root ? 0 : kOwnerUid;
        made.realUser = kOwnerUid;
        made.inputDescriptor = fileno(nothing);
        made.outputDescriptor = output.descriptor();
        made.errorDescriptor = errors.descriptor();
        made.now = made.uptime = [this] { return mac.now(); };
        made.pause = [this, stopped](double seconds) {
            mac.advance(seconds);
            ++pauses;
            return stopped();
        };
        made.shouldStop = stopped;
        made.installStopHandlers = [] {};
        made.ownerAlive = alive;
        made.fileExists = [](const std::string&) { return false; };
        made.useUtilityPriority = [] {};
        made.endProcess = [](int) { require(false, "no session hangs"); };
        made.makeGuardian = [] { return std::make_unique<SilentGuardian>(); };
        made.makeSMC = [this] {
            return std::make_unique<SMC>(
                SMC::Surroundings{[this] { return mac.now(); },
                                  [this](double seconds) { mac.advance(seconds); }, false});
        };
        made.makeSampler = [] { return std::make_unique<HardwareSampler>(); };
        made.makePowerAccess = [this](ToolKeeper&, const std::function<bool()>&) {
            return std::make_unique<SharedPowerAccess>(powerWrites);
        };
        return made;
    }
};

std::vector<std::string> wordsOf(std::string_view bytes) {
    constexpr std::size_t kMostWords = 10;
    std::vector<std::string> words{"FerovaneHelper"};
    while (!bytes.empty() && words.size() < kMostWords) {
        const std::size_t end = std::min(bytes.find('\0'), bytes.size());
        words.emplace_back(bytes.substr(0, end));
        bytes.remove_prefix(std::min(end + 1, bytes.size()));
    }
    return words;
}

// Whether the words are those of a lease for the owner, by a reading of their own.
bool namesLease(const std::vector<std::string>& words) {
    const bool cooling = words.size() == 5 && (words[1] == "cooling" || words[1] == "test-fan");
    const bool profile = words.size() == 7 && words[1] == "profile";
    return (cooling || profile) && parseInt32(words[2]) == kOwnerPid &&
           parseUInt32(words[3]) == kOwnerUid && words[4].size() == 36;
}

void checkEffects(World& world, const std::vector<std::string>& words,
                  const Circumstances& circumstances) {
    const std::string word = words.size() > 1 ? words[1] : "";
    const bool alone = words.size() == 2;
    if (world.mac.calls().writes > 0) {
        const bool lease = circumstances.ownerAlive && namesLease(words);
        require(circumstances.root, "only root changes fans");
        require(lease || (alone && word == "auto"), "only a whole and known command changes fans");
    }
    if (!world.powerWrites.empty()) {
        require(circumstances.root, "only root changes turbo");
        require((alone && word.starts_with("turbo-")) || (word == "profile" && namesLease(words)),
                "only a whole and known command changes turbo");
    }
    require(world.mac.allFansAutomatic(), "every command leaves the fans to the system");
}

void checkMessages(const World& world, int status) {
    constexpr std::size_t kLongestMessage = 500;
    const std::string errors = world.errors.text();
    require(status == 0 || status == 1, "a command succeeds or fails");
    require(errors.empty() == (status == 0), "a failure says why, and nothing else does");
    require(errors.empty() || errors.ends_with('\n'), "a message is a line");
    require(errors.size() <= kLongestMessage && !firstInvalidUtf8(errors),
            "a message is short and well-formed whatever the arguments");
    require(!firstInvalidUtf8(world.output.text()), "output is well-formed");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static World world;
    fuzzing::Input input(fuzzing::textOf(data, size));
    const auto bits = input.take<std::uint8_t>();
    const Circumstances circumstances{(bits & 1) != 0, (bits & 2) != 0, (bits & 4) != 0};
    const std::vector<std::string> words = wordsOf(input.rest());
    const int status = world.run(words, circumstances);
    checkMessages(world, status);
    checkEffects(world, words, circumstances);
    return 0;
}
