#include "helper/standard_streams.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "core/model/scope_error.h"

namespace ferovane {
namespace {

bool writeAll(int descriptor, std::string_view text) noexcept {
    while (!text.empty()) {
        const ssize_t written = ::write(descriptor, text.data(), text.size());
        if (written > 0) {
            text.remove_prefix(static_cast<std::size_t>(written));
        } else if (written == 0 || errno != EINTR) {
            return false;
        }
    }
    return true;
}

}  // namespace

void occupyStandardDescriptors() noexcept {
    int descriptor = -1;
    do {
        descriptor = ::open("/dev/null", O_RDWR);
    } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
    if (descriptor >= 0) {
        ::close(descriptor);
    }
}

void writeText(int descriptor, std::string_view text) {
    if (!writeAll(descriptor, text)) {
        throw ScopeError("无法写入标准输出");
    }
}

void reportLine(int descriptor, std::string_view text) noexcept {
    if (writeAll(descriptor, text)) {
        writeAll(descriptor, "\n");
    }
}

void reportFailure(int descriptor, const std::exception_ptr& failure) noexcept {
    try {
        std::rethrow_exception(failure);
    } catch (const ScopeError& error) {
        reportLine(descriptor, error.message());
    } catch (const std::exception& error) {
        reportLine(descriptor, error.what());
    }
}

}  // namespace ferovane
