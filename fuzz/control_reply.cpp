// A reply, from both sides: the input as a line that a monitor reads, and as the words of a tool
// that a session puts into its answer. Its first two bytes say how often these are repeated: what
// a tool says in a few bytes may need six of them for each in a line.
#include "core/control/control_reply.h"
#include "core/control/control_channel.h"
#include "fuzz/json_properties.h"

using namespace ferovane;
using fuzzing::require;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzing::Input input(data, size);
    constexpr std::uint8_t kRepeatedFrom = 0xE0;
    // What is longer than a line is encoded some fifteen times until it fits.
    constexpr std::size_t kLongMessage = 512, kLongShare = 1024;
    std::size_t times = input.byte() >= kRepeatedFrom ? 16U * input.byte() : 1;
    if (times * input.rest().size() > kLongMessage && !fuzzing::sampled(input.rest(), kLongShare)) {
        times = 1;
    }
    fuzzing::decodeChecked<ControlReply>(input.rest());

    ControlReply reply{.ok = false, .message = "", .turbo = 1};
    for (; times > 0 && reply.message.size() <= kMaxControlLineBytes; --times) {
        reply.message += input.rest();
    }
    const bool fits = encodeJson(reply).size() <= kMaxControlLineBytes;
    const ControlReply fitted = fittedToLine(reply);
    const std::string line = encodeJson(fitted);
    require(line.size() <= kMaxControlLineBytes, "a reply fits into a line");
    require(fits ? fitted == reply : fitted.message.find("（内容过长，") != std::string::npos,
            "a reply that fits is left alone, and one that is cut says so");
    reply.message = repairUtf8(fitted.message);
    require(decodeJson<ControlReply>(line) == reply, "a reply arrives as it was sent");
    return 0;
}
