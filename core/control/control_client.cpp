#include "core/control/control_client.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>
#include <utility>

#include "core/control/control_channel.h"
#include "core/model/json_codec.h"
#include "core/model/scope_error.h"
#include "shim/fv.h"

extern char** environ;  // NOLINT: the platform declares it nowhere

namespace ferovane {
namespace {

// Seconds between two looks at a helper that is to end.
constexpr double kFirstPause = 0.001;
constexpr double kLongestPause = 0.05;

constexpr int kSignalled = 128;  // as a shell has it

constexpr const char* kNotStarted = "无法启动辅助进程";
constexpr const char* kEnded = "辅助进程已经结束";
constexpr const char* kNoReply = "辅助进程的回复无法识别";

// Our end and the helper's. Neither is passed on to what somebody else starts.
struct SocketPair {
    SocketPair() {
        if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) {
            throw ScopeError(kNotStarted, ResultCode::resources);
        }
        for (const int end : ends) {
            ::fcntl(end, F_SETFD, FD_CLOEXEC);
        }
    }
    SocketPair(const SocketPair&) = delete;
    SocketPair& operator=(const SocketPair&) = delete;
    ~SocketPair() {
        for (const int end : ends) {
            end >= 0 ? void(::close(end)) : void();
        }
    }
    int ends[2] = {-1, -1};
};

// The helper gets the line, our standard error, and no other descriptor; signals as they come.
class Launch {
public:
    Launch() {
        posix_spawn_file_actions_init(&actions_);
        posix_spawnattr_init(&attributes_);
    }
    Launch(const Launch&) = delete;
    Launch& operator=(const Launch&) = delete;
    ~Launch() {
        posix_spawn_file_actions_destroy(&actions_);
        posix_spawnattr_destroy(&attributes_);
    }

    // 0 and the child, or an errno value.
    int run(const std::vector<std::string>& words, int line, pid_t& child) {
        if (words.front().find('/') == std::string::npos) {
            return ENOENT;  // whatever has that name in the current folder is not meant
        }
        sigset_t every, none;
        sigfillset(&every);
        sigemptyset(&none);
        posix_spawnattr_setsigdefault(&attributes_, &every);
        posix_spawnattr_setsigmask(&attributes_, &none);
        int flags = POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK;
#ifdef POSIX_SPAWN_CLOEXEC_DEFAULT
        flags |= POSIX_SPAWN_CLOEXEC_DEFAULT;
#endif
        posix_spawnattr_setflags(&attributes_, static_cast<short>(flags));
        posix_spawn_file_actions_adddup2(&actions_, line, STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions_, line, STDOUT_FILENO);
        if (::fcntl(STDERR_FILENO, F_GETFD) >= 0) {
            posix_spawn_file_actions_adddup2(&actions_, STDERR_FILENO, STDERR_FILENO);
        }
        std::vector<char*> argv;
        for (const std::string& word : words) {
            argv.push_back(const_cast<char*>(word.c_str()));  // posix_spawn changes none of them
        }
        argv.push_back(nullptr);
        pid_t started = -1;
        const int error =
            posix_spawn(&started, argv[0], &actions_, &attributes_, argv.data(), environ);
        child = error == 0 ? started : child;
        return error;
    }

private:
    posix_spawn_file_actions_t actions_;
    posix_spawnattr_t attributes_;
};

}  // namespace

ControlClient::Owner ControlClient::Owner::thisProcess() {
    return {::getpid(), ::getuid()};
}

ControlClient::ControlClient(const std::vector<std::string>& command, Owner owner) {
    try {
        SocketPair line;
        std::vector<std::string> words = command;
        words.insert(words.end(), {"serve", std::to_string(owner.pid), std::to_string(owner.uid)});
        // Standard descriptors of ours that are closed must not become the line's.
        const bool isFree = std::min(line.ends[0], line.ends[1]) > STDERR_FILENO;
        adopt(std::exchange(line.ends[0], -1));
        if (!isFree || Launch().run(words, line.ends[1], helper_) != 0) {
            throw ScopeError(kNotStarted);
        }
    } catch (const ScopeError& error) {
        over_ = error.message();
        hangUp();
    }
}

ControlClient::ControlClient(int socket) {
    ::fcntl(socket, F_SETFD, FD_CLOEXEC);
    adopt(socket);
}

ControlClient::~ControlClient() {
    hangUp();
    awaitExit(kEndSeconds);
}

void ControlClient::adopt(int socket) {
    socket_ = socket;
    channel_ = std::make_unique<ControlChannel>(socket, fv_uptime_seconds,
                                                kLongestControlWaitSeconds, true);
}

ControlAnswer ControlClient::request(ControlRequest request, double seconds) {
    if (!channel_) {
        return ControlFailure{ResultCode::ending, over_};
    }
    if (!request.id) {
        request.id = RequestId{++requests_};
    }
    const double deadline = fv_uptime_seconds() + seconds;
    try {
        channel_->send(request, [&] { return !(fv_uptime_seconds() < deadline); });
    } catch (const ScopeError& error) {
        return error.code() == ResultCode::invalid ? ControlFailure{error.code(), error.message()}
                                                   : fail(error);
    }
    try {
        const auto line = channel_->readLine(deadline - fv_uptime_seconds());
        if (!line) {
            throw ScopeError(kEnded, ResultCode::ending);
        }
        ControlReply reply = decodeJson<ControlReply>(*line);
        // Only a refusal may come without the id: of a line that could not be read.
        if (reply.id != request.id && (reply.id || reply.ok)) {
            throw ScopeError(kNoReply);
        }
        return reply;
    } catch (const ScopeError& error) {
        return fail(error);
    }
}

ControlFailure ControlClient::fail(const ScopeError& error) {
    over_ = error.code() == ResultCode::ending ? error.message() : kNoReply;
    hangUp();
    return {ResultCode::ending, over_};
}

bool ControlClient::isAlive() {
    char next = 0;
    const auto lineEnded = [&] {
        const ssize_t size = ::recv(socket_, &next, 1, MSG_PEEK | MSG_DONTWAIT);
        return size == 0 || (size < 0 && errno != EAGAIN && errno != EINTR);
    };
    const bool gone = awaitExit(0) || (channel_ && lineEnded());
    if (channel_ && gone) {
        fail(ScopeError(kEnded, ResultCode::ending));
    }
    return channel_ != nullptr;
}

ControlAnswer ControlClient::end(double seconds) {
    ControlAnswer answer =
        request({.command = std::string(rawValue(ControlCommand::shutdown))}, seconds);
    if (channel_) {
        over_ = kEnded;
    }
    hangUp();
    awaitExit(seconds);
    return answer;
}

void ControlClient::hangUp() noexcept {
    channel_.reset();
    if (socket_ >= 0) {
        ::close(std::exchange(socket_, -1));
    }
}

// Whether a helper that was started here is known to have ended. It is never killed: that would
// keep it from handing its fans back.
bool ControlClient::awaitExit(double seconds) noexcept {
    const double deadline = fv_uptime_seconds() + seconds;
    for (double pause = kFirstPause; helper_ > 0; pause = std::min(2 * pause, kLongestPause)) {
        int status = 0;
        const pid_t reaped = ::waitpid(helper_, &status, WNOHANG);
        if (reaped == helper_) {
            exitStatus_ = WIFSIGNALED(status) ? kSignalled + WTERMSIG(status) : WEXITSTATUS(status);
            helper_ = 0;
            return true;
        }
        if (reaped < 0 && errno != EINTR) {
            helper_ = 0;  // whoever else waits for our children has had its status
            return true;
        }
        if (!(fv_uptime_seconds() < deadline)) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::duration<double>(pause));
    }
    return exitStatus_.has_value();
}

}  // namespace ferovane
