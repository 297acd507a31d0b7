// Lines over a pipe that come in whatever pieces the input chooses.
//
// The input: how many pieces the rest names, their sizes, where a stretch of filling that
// makes lines long stands and how long it is, and then what is sent.
//
// Whenever the reader looks at its clock, the next piece has arrived: a time-out is an exception,
// which costs as much as everything else together.
#include <unistd.h>

#include <array>
#include <string>
#include <vector>

#include "core/control/control_channel.h"
#include "core/model/scope_error.h"
#include "fuzz/input.h"
#include "fuzz/property.h"

namespace {

using namespace ferovane;
using fuzzing::require;

constexpr std::size_t kMostFilling = 40000;  // more than two lines, less than a pipe holds
constexpr std::uint8_t kFilledFrom = 0xE0;   // seldom: long lines cost time; the rest is where
constexpr std::size_t kMostPieces = 48;      // of one stream
constexpr double kTimeout = 1e-4;            // seconds: a poll with it does not wait

class Pipe {
public:
    Pipe() { require(pipe(ends_.data()) == 0, "a pipe can be made"); }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    ~Pipe() {
        close(ends_[0]);
        closeWriter();
    }

    int reader() const { return ends_[0]; }
    void send(std::string_view piece) const {
        const auto sent = write(ends_[1], piece.data(), piece.size());
        require(sent == static_cast<ssize_t>(piece.size()), "a pipe takes what it has room for");
    }
    void closeWriter() {
        if (ends_[1] >= 0) {
            close(std::exchange(ends_[1], -1));
        }
    }

private:
    std::array<int, 2> ends_{};
};

struct Stream {
    std::vector<std::uint8_t> pieces;
    std::string bytes;

    explicit Stream(fuzzing::Input input) {
        pieces.resize(input.take<std::uint8_t>() % 16);
        for (std::uint8_t& piece : pieces) {
            piece = input.take<std::uint8_t>();
        }
        const std::uint8_t place = input.take<std::uint8_t>();
        const std::size_t filling =
            place < kFilledFrom ? 0 : input.take<std::uint16_t>() % kMostFilling;
        if (input.take<std::uint8_t>() % 4 != 0) {
            input.take<std::uint8_t>();  // two bytes that chose a clock when the seeds were made
        }
        bytes = input.rest();
        if (filling > 0) {
            bytes.insert(std::min<std::size_t>(place - kFilledFrom, bytes.size()), filling, 'x');
        }
    }

    std::size_t pieceSize(std::size_t index) const {
        const std::size_t chosen = pieces.empty() ? bytes.size() : pieces[index % pieces.size()];
        return std::max(chosen + 1, bytes.size() / kMostPieces);
    }
};

struct Received {
    std::vector<std::string> lines;
    bool ended = false;    // the end of the stream was told
    bool tooLong = false;  // a line was refused for its length

    bool operator==(const Received&) const = default;
};

// What a reader without any cleverness makes of the whole stream.
Received expectedOf(std::string_view bytes) {
    Received expected;
    while (true) {
        const std::size_t end = bytes.find('\n');
        if (std::min(end, bytes.size()) > 16383) {
            expected.tooLong = true;
            return expected;
        }
        if (end == std::string_view::npos) {
            expected.ended = true;
            return expected;
        }
        expected.lines.emplace_back(bytes.substr(0, end));
        bytes.remove_prefix(end + 1);
    }
}

Received receivedFrom(const Stream& stream) {
    Pipe pipe;
    std::string_view rest = stream.bytes;
    const auto uptime = [&, piece = std::size_t{0}]() mutable {
        const std::string_view sent = rest.substr(0, stream.pieceSize(piece++));
        rest.remove_prefix(sent.size());
        sent.empty() ? pipe.closeWriter() : pipe.send(sent);
        return 0.0;
    };
    ControlChannel channel(pipe.reader(), uptime);
    Received received;
    try {
        while (auto line = channel.readLine(kTimeout)) {
            received.lines.push_back(std::move(*line));
        }
        received.ended = true;
    } catch (const ScopeError& error) {
        require(error.message() == "控制消息过长", "a pipe only ends, or holds too long a line");
        received.tooLong = true;
    }
    return received;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const Stream stream{fuzzing::Input(fuzzing::textOf(data, size))};
    const Received expected = expectedOf(stream.bytes);
    require(receivedFrom(stream) == expected,
            "exactly the lines that were sent arrive, whatever the pieces");
    return 0;
}
