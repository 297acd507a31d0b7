#include "helper/standard_streams.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <string>

#include "core/model/scope_error.h"

namespace ferovane {
namespace {

// A reader may take its time, but one that has stopped reading must not stop us.
constexpr int kReportPatienceMilliseconds = 1000;

constexpr int kForEver = -1;  // to poll

// What a pipe takes without blocking when it says that it takes anything.
constexpr std::size_t kReportPiece = 512;

bool takesMore(int descriptor, int milliseconds) noexcept {
    pollfd waiting{descriptor, POLLOUT, 0};
    int ready = -1;
    do {
        ready = ::poll(&waiting, 1, milliseconds);
    } while (ready < 0 && errno == EINTR);
    return ready != 0;  // some devices cannot be polled: they are simply written to
}

bool writeAll(int descriptor, std::string_view text, bool patient) noexcept {
    while (!text.empty()) {
        if (!patient && !takesMore(descriptor, kReportPatienceMilliseconds)) {
            return false;
        }
        const std::size_t size = patient ? text.size() : std::min(text.size(), kReportPiece);
        const ssize_t written = ::write(descriptor, text.data(), size);
        if (written > 0) {
            text.remove_prefix(static_cast<std::size_t>(written));
        } else if (written < 0 && errno == EAGAIN) {
            takesMore(descriptor, kForEver);  // a caller may share a descriptor that does not block
        } else if (written == 0 || errno != EINTR) {
            return false;
        }
    }
    return true;
}

}  // namespace

bool occupyStandardDescriptors() noexcept {
    int descriptor = -1;
    do {
        descriptor = ::open("/dev/null", O_RDWR);
    } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
    if (descriptor >= 0) {
        ::close(descriptor);
        return true;
    }
    // Nothing more can be opened, which is no harm where all three are open already.
    return ::fcntl(STDIN_FILENO, F_GETFD) >= 0 && ::fcntl(STDOUT_FILENO, F_GETFD) >= 0 &&
           ::fcntl(STDERR_FILENO, F_GETFD) >= 0;
}

void writeText(int descriptor, std::string_view text) {
    if (!writeAll(descriptor, text, true)) {
        throw ScopeError("无法写入标准输出");
    }
}

void reportLine(int descriptor, std::string_view text) noexcept {
    if (writeAll(descriptor, text, false)) {
        writeAll(descriptor, "\n", false);
    }
}

void reportFailure(int descriptor, const std::exception_ptr& failure) noexcept {
    try {
        std::rethrow_exception(failure);
    } catch (const std::exception& error) {
        reportLine(descriptor, userText(error));
    }
}

}  // namespace ferovane
