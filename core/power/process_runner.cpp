#include "core/power/process_runner.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

#include "core/model/scope_error.h"
#include "core/model/utf8.h"
#include "core/power/child_process.h"
#include "shim/fv.h"

namespace ferovane {

namespace {

constexpr std::size_t kPathCapacity = 1024;  // the longest path macOS has

class Descriptor {
public:
    explicit Descriptor(int number) : number_(number) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { close(number_); }

    int number() const { return number_; }

private:
    int number_;
};

// Opens the file that takes a tool's output. Its name is removed at once, so that it goes with the
// last descriptor even when this process is killed while the tool runs.
int openOutput() {
    std::array<char, kPathCapacity> directory{};
    if (fv_temporary_directory(directory.data(), directory.size()) == 0) {
        auto path = std::string(directory.data()) + "ferovane-command-XXXXXX";
        const int descriptor = mkostemp(path.data(), O_CLOEXEC);
        if (descriptor >= 0) {
            unlink(path.c_str());
            return descriptor;
        }
    }
    throw ScopeError("无法创建命令输出文件");
}

std::int32_t spawn(const std::string& path, const std::vector<std::string>& arguments,
                   const Descriptor& output) {
    std::vector<const char*> argv{path.c_str()};
    for (const auto& argument : arguments) {
        argv.push_back(argument.c_str());
    }
    argv.push_back(nullptr);
    std::int32_t pid = 0;
    const int error = fv_spawn_tool(path.c_str(), argv.data(), output.number(), &pid);
    if (error != 0) {
        throw ScopeError("无法启动 " + path + "：" + std::generic_category().message(error));
    }
    return pid;
}

std::string readBytes(const Descriptor& output, std::size_t limit) {
    struct stat file {};
    if (fstat(output.number(), &file) != 0 || file.st_size <= 0) {
        return {};
    }
    std::string bytes(std::min(static_cast<std::size_t>(file.st_size), limit), '\0');
    std::size_t filled = 0;
    while (filled < bytes.size()) {
        const auto count = pread(output.number(), bytes.data() + filled, bytes.size() - filled,
                                 static_cast<off_t>(filled));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            break;
        }
        filled += static_cast<std::size_t>(count);
    }
    bytes.resize(filled);
    return bytes;
}

// Reading a little more than the limit keeps a character that the limit cuts through from being
// taken for an invalid one.
std::string readText(const Descriptor& output, std::size_t limit) {
    constexpr std::size_t kLongestRest = 3;  // bytes of a character after its first
    auto text = repairUtf8(readBytes(output, limit + kLongestRest));
    text.resize(utf8Prefix(text, limit).size());
    return text;
}

}  // namespace

CommandResult ProcessRunner::run(const std::string& path, const std::vector<std::string>& arguments,
                                 double timeout, const Limits& limits) {
    const Descriptor output(openOutput());
    ChildProcess child(spawn(path, arguments, output));
    if (!child.endsWithin(timeout)) {
        child.signalGroup(SIGTERM);
        child.endsWithin(limits.graceSeconds);
        throw ScopeError("命令超时。请刷新状态确认结果。");
    }
    const auto status = child.finish();
    if (!status) {
        throw ScopeError("无法取得命令结果：" + path);
    }
    return {*status, readText(output, limits.outputBytes)};
}

std::string ProcessRunner::shellQuote(std::string_view text) {
    std::string quoted = "'";
    for (const char c : text) {
        c == '\'' ? quoted.append("'\\''") : quoted.append(1, c);
    }
    return quoted.append("'");
}

std::string ProcessRunner::appleScriptString(std::string_view text) {
    std::string literal = "\"";
    for (const char c : text) {
        switch (c) {
            case '\\':
                literal.append("\\\\");
                break;
            case '"':
                literal.append("\\\"");
                break;
            case '\n':
                literal.append("\\n");
                break;
            default:
                literal.append(1, c);
        }
    }
    return literal.append("\"");
}

}  // namespace ferovane
