// Lines of JSON over a descriptor, in both directions.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>

#include "core/model/json_codec.h"

namespace ferovane {

// A line without its line feed. Sixteen KiB with it: far above any request, and small enough to
// hold twice without a thought.
inline constexpr std::size_t kMaxControlLineBytes = 16383;

// A single wait for a peer; a longer time-out is made of several.
inline constexpr double kLongestControlWaitSeconds = 150;

// Used by one thread at a time. The descriptor is the caller's, to open and to close; whether it
// blocks is all one; unless it is a socket, and said to be, SIGPIPE must be ignored. After an error
// the channel stays usable as far as the descriptor is, with the bytes received so far kept.
class ControlChannel {
public:
    using Uptime = std::function<double()>;  // seconds, monotonic

    ControlChannel(int fd, Uptime uptime, double longestWaitSeconds = kLongestControlWaitSeconds,
                   bool isSocket = false);
    ControlChannel(const ControlChannel&) = delete;
    ControlChannel& operator=(const ControlChannel&) = delete;

    // The next line, without its line feed; absent when the peer has closed before a whole line
    // arrived. Throws ScopeError when the line is longer than allowed, when none is complete after
    // `timeoutSeconds` (0 or less: unless it is here already), and when the descriptor fails.
    std::optional<std::string> readLine(double timeoutSeconds);

    // Writes a value as one line, however long the reader takes, or until `giveUp` while it takes
    // nothing. Throws ScopeError, with nothing written, when the line would be longer than allowed,
    // and when the descriptor fails or the line was given up.
    template <class T>
    void send(const T& value, const std::function<bool()>& giveUp = {}) {
        sendLine(encodeJson(value), giveUp);
    }

private:
    std::optional<std::string> takeLine();
    bool waitUntilReadable(double deadline) const;
    bool receive();
    void sendLine(std::string line, const std::function<bool()>& giveUp) const;

    int fd_;
    Uptime uptime_;
    double longestWaitSeconds_;
    bool isSocket_;
    std::string buffer_;  // received and not yet returned
};

}  // namespace ferovane
