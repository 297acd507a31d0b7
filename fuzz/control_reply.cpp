// A reply, from both sides: the input as a line that a monitor reads, and as the words of a tool
// that a session puts into its answer.
#include <unistd.h>

#include <array>
#include <string>

#include "core/control/control_channel.h"
#include "core/control/control_reply.h"
#include "fuzz/input.h"
#include "fuzz/json_properties.h"

namespace {

using namespace ferovane;
using fuzzing::require;

// A pipe holds more than a line, so one thread can write it and then read it.
ControlReply sentAndReceived(const ControlReply& reply) {
    static const std::array<int, 2> ends = [] {
        std::array<int, 2> made{};
        require(pipe(made.data()) == 0, "a pipe can be made");
        return made;
    }();
    const auto uptime = [] { return 0.0; };
    ControlChannel(ends[1], uptime).send(reply);
    const auto line = ControlChannel(ends[0], uptime).readLine(1);
    require(line.has_value(), "a reply arrives");
    return decodeJson<ControlReply>(*line);
}

void checkAnswer(const std::string& message) {
    constexpr std::string_view kOmission = "…（内容过长，中间已省略）…";
    const ControlReply whole{.ok = false, .message = message, .turbo = 1};
    const ControlReply received = sentAndReceived(fittedToLine(whole));
    ControlReply expected = whole;
    expected.message = repairUtf8(message);
    if (encodeJson(whole).size() > kMaxControlLineBytes) {
        const auto keeps = [&](std::size_t cut) {
            return expected.message.starts_with(received.message.substr(0, cut)) &&
                   expected.message.ends_with(received.message.substr(cut + kOmission.size()));
        };
        const std::size_t cut = received.message.find(kOmission);
        require(cut != std::string::npos, "a cut message says so");
        require(keeps(cut) || keeps(received.message.rfind(kOmission)),
                "a cut message is a beginning and an end of the whole one");
        expected.message = received.message;
    }
    require(received == expected, "a reply arrives as it was sent");
}

// What a tool says in a few bytes may need six of them for each in a line.
std::string repeated(std::string_view text, std::size_t times) {
    std::string message;
    for (std::size_t i = 0; i < times && message.size() <= kMaxControlLineBytes; ++i) {
        message += text;
    }
    return message;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzing::Input input(fuzzing::textOf(data, size));
    // What is longer than a line is encoded some fifteen times until it fits.
    constexpr std::size_t kLongMessage = 512;
    constexpr std::uint8_t kRepeatedFrom = 0xE0;
    constexpr std::size_t kLongShare = 1024;
    const bool repeats = input.take<std::uint8_t>() >= kRepeatedFrom;
    const std::size_t repetitions = repeats ? 16 * input.take<std::uint8_t>() : 1;
    const bool costly = repetitions * input.rest().size() > kLongMessage;
    const std::size_t times =
        !costly || fuzzing::sampled(input.rest(), kLongShare) ? repetitions : 1;
    fuzzing::decodeChecked<ControlReply>(input.rest());
    checkAnswer(repeated(input.rest(), times));
    return 0;
}
