#include "core/control/control_channel.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>
#include <utility>

#include "core/model/scope_error.h"

namespace ferovane {
namespace {

constexpr std::size_t kReadBytes = 4096;

// What a pipe takes without blocking once it says that it takes anything.
constexpr std::size_t kWriteBytes = 512;

// A reader that is gone is a failed write: asked for with each write, or of the socket.
#ifdef SO_NOSIGPIPE
constexpr int kQuietly = 0;
#else
constexpr int kQuietly = MSG_NOSIGNAL;
#endif

constexpr int kSendPollMilliseconds = 100;  // between looks at whether sending is given up

[[noreturn]] void failTooLong() {
    throw ScopeError("控制消息过长", ResultCode::invalid);
}

[[noreturn]] void failToSend() {
    throw ScopeError("辅助进程写入失败", ResultCode::ending);
}

// A descriptor that cannot be polled is simply written to.
void awaitReader(int fd, const std::function<bool()>& giveUp) {
    pollfd waiting{fd, POLLOUT, 0};
    int ready = 0;
    while ((ready = poll(&waiting, 1, kSendPollMilliseconds)) == 0 ||
           (ready < 0 && errno == EINTR)) {
        if (giveUp && giveUp()) {
            failToSend();
        }
    }
}

}  // namespace

ControlChannel::ControlChannel(int fd, Uptime uptime, double longestWaitSeconds, bool isSocket)
    : fd_(fd),
      uptime_(std::move(uptime)),
      longestWaitSeconds_(longestWaitSeconds),
      isSocket_(isSocket) {
#ifdef SO_NOSIGPIPE
    const int on = 1;
    if (isSocket_) {
        setsockopt(fd_, SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof on);
    }
#endif
}

std::optional<std::string> ControlChannel::readLine(double timeoutSeconds) {
    const double deadline = uptime_() + timeoutSeconds;
    while (true) {
        if (auto line = takeLine()) {
            return line;
        }
        if (waitUntilReadable(deadline) && !receive()) {
            return std::nullopt;
        }
    }
}

std::optional<std::string> ControlChannel::takeLine() {
    const std::size_t end = buffer_.find('\n');
    if (std::min(end, buffer_.size()) > kMaxControlLineBytes) {
        failTooLong();
    }
    if (end == std::string::npos) {
        return std::nullopt;
    }
    std::string line = buffer_.substr(0, end);
    buffer_.erase(0, end + 1);
    return line;
}

// False when there may be nothing to read yet, and the deadline has to be looked at again.
bool ControlChannel::waitUntilReadable(double deadline) const {
    const double remaining = deadline - uptime_();
    if (!(remaining > 0)) {
        throw ScopeError("辅助进程响应超时", ResultCode::ending);
    }
    const bool cut = remaining > longestWaitSeconds_;
    pollfd waiting{fd_, POLLIN, 0};
    const int ready =
        poll(&waiting, 1, static_cast<int>(std::min(remaining, longestWaitSeconds_) * 1000));
    if (ready > 0) {
        return true;
    }
    // Only a wait for all that remained has run out; one that was cut short goes on.
    if (ready == 0 ? !cut : errno != EINTR) {
        throw ScopeError("辅助进程通信中断或超时", ResultCode::ending);
    }
    return false;
}

// Takes in what has arrived; false at the end of the stream.
bool ControlChannel::receive() {
    std::array<char, kReadBytes> chunk{};
    const ssize_t count = read(fd_, chunk.data(), chunk.size());
    if (count < 0 && errno != EINTR && errno != EAGAIN) {
        throw ScopeError("辅助进程读取失败", ResultCode::ending);
    }
    if (count > 0) {
        buffer_.append(chunk.data(), static_cast<std::size_t>(count));
    }
    return count != 0;
}

void ControlChannel::sendLine(std::string line, const std::function<bool()>& giveUp) const {
    if (line.size() > kMaxControlLineBytes) {
        failTooLong();
    }
    line += '\n';
    for (std::string_view rest = line; !rest.empty();) {
        awaitReader(fd_, giveUp);
        const std::size_t size = std::min(rest.size(), kWriteBytes);
        const ssize_t count =
            isSocket_ ? ::send(fd_, rest.data(), size, kQuietly) : write(fd_, rest.data(), size);
        if (count > 0) {
            rest.remove_prefix(static_cast<std::size_t>(count));
        } else if (count == 0 || (errno != EINTR && errno != EAGAIN)) {
            failToSend();  // nothing written would go on for ever
        }
    }
}

}  // namespace ferovane
