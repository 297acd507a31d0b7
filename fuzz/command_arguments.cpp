// The helper's arguments. The input: a byte of circumstances, then words, each ended by a NUL.
//
// One simulated Mac serves all inputs; every command has to leave its fans to the system.
#include <fcntl.h>
#include <unistd.h>

#include "core/model/number_text.h"
#include "core/model/utf8.h"
#include "fuzz/property.h"
#include "tests/helper/helper_world.h"

namespace {

using namespace ferovane;
using fuzzing::require;

std::vector<std::string> wordsFrom(std::string_view bytes) {
    constexpr std::size_t kMostWords = 9;
    std::vector<std::string> words;
    while (!bytes.empty() && words.size() < kMostWords) {
        const std::size_t end = std::min(bytes.find('\0'), bytes.size());
        words.emplace_back(bytes.substr(0, end));
        bytes.remove_prefix(std::min(end + 1, bytes.size()));
    }
    return words;
}

// Whether the words are those of a lease for the owner, by a reading of their own.
bool namesLease(const std::vector<std::string>& words) {
    const bool cooling = words.size() == 4 && (words[0] == "cooling" || words[0] == "test-fan");
    const bool profile = words.size() == 6 && words[0] == "profile";
    return (cooling || profile) && parseInt32(words[1]) == testing::kOwnerPid &&
           parseUInt32(words[2]) == testing::kOwnerUid && words[3].size() == 36;
}

void empty(const testing::CollectedOutput& output) {
    require(ftruncate(output.descriptor(), 0) == 0 && lseek(output.descriptor(), 0, SEEK_SET) == 0,
            "output can be cleared");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static testing::HelperWorld world(simulator::intelMac(2));
    fuzzing::Input input(data, size);
    const auto bits = input.byte();
    const bool root = (bits & 1) != 0, ownerAlive = (bits & 2) != 0;
    const std::vector<std::string> words = wordsFrom(input.rest());
    // A lease of half an hour tells no more than one of a few rounds.
    constexpr int kMostPauses = 3;
    world.pauses = 0;
    world.onPause = [] { world.stopFlag = world.stopFlag || world.pauses >= kMostPauses; };
    world.stopFlag = (bits & 4) != 0;
    world.ownerAlive = ownerAlive;
    world.environment.effectiveUser = root ? 0 : testing::kOwnerUid;
    static const int nothing = open("/dev/null", O_RDONLY);
    world.environment.inputDescriptor = nothing;
    world.environment.endProcess = [](int) { require(false, "no session hangs"); };
    world.power.writes.clear();
    world.mac.clearJournal();
    world.mac.clearCalls();
    empty(world.output);
    empty(world.errors);
    const int status = world.run(words);

    constexpr std::size_t kLongestMessage = 500;
    const std::string errors = world.errors.text();
    require(status == 0 || status == 1, "a command succeeds or fails");
    require(errors.empty() == (status == 0), "a failure says why, and nothing else does");
    require(errors.empty() || errors.ends_with('\n'), "a message is a line");
    require(errors.size() <= kLongestMessage && !firstInvalidUtf8(errors),
            "a message is short and well-formed whatever the arguments");
    require(!firstInvalidUtf8(world.output.text()), "output is well-formed");

    const bool lease = ownerAlive && namesLease(words);
    const std::string alone = words.size() == 1 ? words[0] : "";
    require(world.mac.calls().writes == 0 || (root && (lease || alone == "auto")),
            "only root changes fans, with a whole and known command");
    require(world.power.writes.empty() ||
                (root && (alone.starts_with("turbo-") || (lease && words[0] == "profile"))),
            "only root changes turbo, with a whole and known command");
    require(world.mac.allFansAutomatic(), "every command leaves the fans to the system");
    return 0;
}
