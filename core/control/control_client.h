// The monitor's side of a control session.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "core/control/control_reply.h"
#include "core/control/control_request.h"
#include "core/model/scope_error.h"

namespace ferovane {

class ControlChannel;

// Why there is no reply. `invalid`: the request was never sent, and the session goes on. Any other
// code: the session is over, and its helper hands the fans back without being asked.
struct ControlFailure {
    ResultCode code = ResultCode::ending;
    std::string message;  // for the user
};

// What a request came to: see the reply's `ok`, too.
using ControlAnswer = std::variant<ControlReply, ControlFailure>;

// One session with one helper. What the helper does, or fails to do, is told by values; only a lack
// of memory throws. One thread at a time; it has no thread of its own, raises no SIGPIPE, and
// passes none of its descriptors on.
class ControlClient {
public:
    static constexpr double kReplySeconds = 110;  // loading the turbo driver alone may take 90
    static constexpr double kEndSeconds = 15;     // a lease has 12 to hand its fans back

    // On whose behalf: a living process, and its user, who is the helper's real user.
    struct Owner {
        std::int32_t pid;
        std::uint32_t uid;
        static Owner thisProcess();
    };

    // Starts the helper, with "serve" and the owner behind the words of `command`: an absolute
    // path, and what stands before the helper's own if that is another program's. It runs with our
    // environment and our standard error. That it cannot be started is the answer to every request.
    explicit ControlClient(const std::vector<std::string>& command,
                           Owner owner = Owner::thisProcess());

    // Takes over a connected stream socket whose other end is a helper's input and output: what a
    // daemon that starts the helper hands to its app. Closes it.
    explicit ControlClient(int socket);

    // Hangs up and waits for a helper that was started here, for kEndSeconds at most.
    ~ControlClient();
    ControlClient(const ControlClient&) = delete;
    ControlClient& operator=(const ControlClient&) = delete;

    // Asks and waits for the reply, together at most so many seconds. A request without an id is
    // given one. After any failure but `invalid` nothing is sent any more: a reply that was not
    // waited for would be taken for the next one.
    ControlAnswer request(ControlRequest request, double seconds = kReplySeconds);

    // The helper holds its end of the line and no request has failed for good.
    bool isAlive();

    // "shutdown", whose reply, if it is `ok`, tells that the fans are the system's. Then hangs up
    // and waits for the helper, in all for at most about twice the time.
    ControlAnswer end(double seconds = kEndSeconds);

    // Of a helper that was started here and is known to have ended: its exit status, or the number
    // of the signal that ended it plus 128.
    std::optional<int> exitStatus() const { return exitStatus_; }

private:
    void adopt(int socket);
    ControlFailure fail(const ScopeError& error);
    void hangUp() noexcept;
    bool awaitExit(double seconds) noexcept;

    int socket_ = -1;
    std::unique_ptr<ControlChannel> channel_;  // null once the session is over
    pid_t helper_ = 0;                         // not reaped yet; 0: none
    std::optional<int> exitStatus_;
    std::int64_t requests_ = 0;
    std::string over_;  // why, for the user
};

}  // namespace ferovane
