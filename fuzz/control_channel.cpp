// Lines over a pipe that come in whatever pieces the input chooses.
//
// The input: how many pieces the rest names, their sizes, where a stretch of filling that makes
// lines long stands and how long it is, a byte and mostly another that mean nothing, and then what
// is sent.
#include <unistd.h>

#include <array>
#include <string>
#include <utility>
#include <vector>

#include "core/control/control_channel.h"
#include "core/model/scope_error.h"
#include "fuzz/property.h"

namespace {

using namespace ferovane;
using fuzzing::require;

struct Stream {
    std::vector<std::size_t> pieces;
    std::string bytes;
};

Stream streamFrom(fuzzing::Input input) {
    constexpr std::size_t kMostFilling = 40000;  // more than two lines, less than a pipe holds
    constexpr std::uint8_t kFilledFrom = 0xE0;   // seldom: long lines cost time
    constexpr std::size_t kMostPieces = 48;      // of one stream
    Stream stream;
    stream.pieces.resize(input.byte() % 16U);
    for (std::size_t& piece : stream.pieces) {
        piece = input.byte() + 1U;
    }
    const std::size_t place = input.byte();
    const std::size_t filling =
        place < kFilledFrom ? 0 : input.take<std::uint16_t>() % kMostFilling;
    input.take(input.byte() % 4 != 0 ? 1U : 0U);
    stream.bytes = input.rest();
    if (filling > 0) {
        stream.bytes.insert(std::min(place - kFilledFrom, stream.bytes.size()), filling, 'x');
    }
    stream.pieces.resize(std::max<std::size_t>(stream.pieces.size(), 1), stream.bytes.size() + 1);
    for (std::size_t& piece : stream.pieces) {
        piece = std::max(piece, stream.bytes.size() / kMostPieces);
    }
    return stream;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const Stream stream = streamFrom(fuzzing::Input(data, size));
    std::array<int, 2> ends{};
    require(pipe(ends.data()) == 0, "a pipe can be made");
    // Whenever the reader looks at its clock, the next piece has arrived: a time-out is an
    // exception, which costs as much as everything else together.
    std::string_view rest = stream.bytes;
    const auto uptime = [&, piece = std::size_t{0}]() mutable {
        const std::string_view sent = rest.substr(0, stream.pieces[piece++ % stream.pieces.size()]);
        if (!sent.empty()) {
            require(write(ends[1], sent.data(), sent.size()) == ssize_t(sent.size()), "it fits");
        } else if (ends[1] >= 0) {
            close(std::exchange(ends[1], -1));
        }
        rest.remove_prefix(sent.size());
        return 0.0;
    };
    ControlChannel channel(ends[0], uptime);
    std::string_view expected = stream.bytes;
    try {
        constexpr double kTimeout = 1e-4;  // seconds: a poll with it does not wait
        while (const auto line = channel.readLine(kTimeout)) {
            require(expected.starts_with(*line + "\n"), "exactly the lines that were sent arrive");
            expected.remove_prefix(line->size() + 1);
        }
        require(expected.find('\n') == expected.npos, "every whole line arrives");
    } catch (const ScopeError& error) {
        require(error.message() == "控制消息过长" &&
                    expected.substr(0, 16384).find('\n') == expected.npos,
                "only too long a line is an error");
    }
    close(ends[0]);
    if (ends[1] >= 0) {
        close(ends[1]);
    }
    return 0;
}
