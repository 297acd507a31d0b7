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
#include <chrono>
#include <optional>
#include <thread>
#include <utility>

#include "core/power/tool_output.h"
#include "shim/fv.h"

namespace ferovane {

namespace {

constexpr std::size_t kPathCapacity = 1024;  // the longest path macOS has
constexpr std::size_t kFileBlock = 4096;     // bytes; no file system gives room in larger pieces

// Seconds between two looks at a tool: soon at first, since most tools are quick.
constexpr double kFirstPause = 0.001;
constexpr double kLongestPause = 0.05;

// A killed process is gone in well under a millisecond unless the kernel holds it.
constexpr double kKilledSeconds = 1;

// The file that takes a tool's output. Its name is removed at once, so that it goes with the last
// descriptor even when this process is killed while the tool runs.
class OutputFile {
public:
    OutputFile() {
        std::array<char, kPathCapacity> directory{};
        if (fv_temporary_directory(directory.data(), directory.size()) == 0) {
            auto path = std::string(directory.data()) + "ferovane-command-XXXXXX";
            descriptor_ = mkostemp(path.data(), O_CLOEXEC);
            if (descriptor_ >= 0) {
                unlink(path.c_str());
                return;
            }
        }
        throw ScopeError("无法创建命令输出文件", ResultCode::resources);
    }
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    ~OutputFile() { close(descriptor_); }

    int descriptor() const { return descriptor_; }

    std::size_t size() const {
        struct stat file {};
        return fstat(descriptor_, &file) == 0 ? static_cast<std::size_t>(file.st_size) : 0;
    }

    // What a full disk did not take is missing without a word. It does not take one block more.
    bool isFull() const {
        const std::array<char, kFileBlock> block{};
        const auto end = static_cast<off_t>(size());
        return pwrite(descriptor_, block.data(), block.size(), end) !=
               static_cast<ssize_t>(block.size());
    }

private:
    int descriptor_ = -1;
};

std::int32_t spawn(const std::string& path, const std::vector<std::string>& arguments,
                   const OutputFile& output) {
    std::vector<const char*> argv{path.c_str()};
    for (const auto& argument : arguments) {
        argv.push_back(argument.c_str());
    }
    argv.push_back(nullptr);
    std::int32_t pid = 0;
    const int error = fv_spawn_tool(path.c_str(), argv.data(), output.descriptor(), &pid);
    if (error != 0) {
        // The system's own words for it would be in English.
        throw ScopeError("无法启动 " + path + "（错误 " + std::to_string(error) + "）");
    }
    return pid;
}

// A child that leads a process group of its own, and whatever it starts. Until it is finished it is
// not reaped, so that its process id, and with it the group's, cannot come to mean something else.
class Tool {
public:
    // pid: of a child that waits for its first instruction.
    Tool(std::int32_t pid, const ProcessRunner::Supervision& supervision)
        : pid_(pid), supervision_(supervision) {}
    Tool(const Tool&) = delete;
    Tool& operator=(const Tool&) = delete;

    // Asks a tool that runs to end, and gives it the time to do so.
    ~Tool() {
        if (begun_ && !finished_) {
            signalGroup(SIGTERM);
            endsWithin(supervision_.graceSeconds, [] {});
        }
        finish();
    }

    // Whoever ends it after us knows of it before it can do anything.
    void begin() {
        if (supervision_.keeper != nullptr) {
            supervision_.keeper->toolStarted(pid_);
            told_ = true;
        }
        begun_ = true;
        signalGroup(SIGCONT);
    }

    // look: called between; may throw. Time during which the machine sleeps does not count.
    template <class Look>
    bool endsWithin(double seconds, Look&& look) const {
        const double deadline = fv_uptime_seconds() + seconds;
        for (double pause = kFirstPause; !hasEnded(); pause = std::min(2 * pause, kLongestPause)) {
            look();
            const double left = deadline - fv_uptime_seconds();
            if (!(left > 0)) {
                return false;
            }
            const double rest = std::max(kFirstPause, std::min(pause, left));
            std::this_thread::sleep_for(std::chrono::duration<double>(rest));
        }
        return true;
    }

    void signalGroup(int signal) const { kill(-pid_, signal); }

    // Kills what is left of the group and reaps the child. The child's exit status, or the number
    // of the signal it died of; absent when it cannot be had.
    std::optional<std::int32_t> finish() {
        if (finished_) {
            return std::nullopt;
        }
        finished_ = true;
        signalGroup(SIGKILL);
        const bool ended = endsWithin(kKilledSeconds, [] {});
        if (told_) {
            supervision_.keeper->toolEnded();
        }
        return ended ? reap() : std::nullopt;
    }

private:
    // Also true when the system does not tell.
    bool hasEnded() const {
        siginfo_t info{};
        const int options = WEXITED | WNOWAIT | WNOHANG;
        return waitid(P_PID, static_cast<id_t>(pid_), &info, options) == 0 ? info.si_pid != 0
                                                                           : errno != EINTR;
    }

    std::optional<std::int32_t> reap() const {
        int status = 0;
        pid_t reaped = 0;
        do {
            reaped = waitpid(pid_, &status, 0);
        } while (reaped < 0 && errno == EINTR);
        if (reaped != pid_) {
            return std::nullopt;
        }
        return WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status);
    }

    const std::int32_t pid_;
    const ProcessRunner::Supervision& supervision_;
    bool told_ = false, begun_ = false, finished_ = false;
};

}  // namespace

CommandResult ProcessRunner::run(const std::string& path, const std::vector<std::string>& arguments,
                                 double timeout, const Supervision& supervision) {
    const auto requireGoingOn = [&] {
        if (supervision.stop && supervision.stop()) {
            throw WorkStopped();
        }
    };
    requireGoingOn();
    const OutputFile output;
    Tool tool(spawn(path, arguments, output), supervision);
    tool.begin();
    const bool ended = tool.endsWithin(timeout, [&] {
        requireGoingOn();
        if (output.size() > supervision.writtenBytes) {
            tool.finish();
            throw ScopeError("命令输出过多，已终止：" + path);
        }
    });
    if (!ended) {
        throw ScopeError("命令超时。请刷新状态确认结果。", ResultCode::timeout);
    }
    const auto status = tool.finish();
    if (!status) {
        throw ScopeError("无法取得命令结果：" + path);
    }
    return {*status, readToolOutput(output.descriptor(), supervision.outputBytes), output.isFull()};
}

ToolRunner ProcessRunner::runner(Supervision supervision) {
    return [supervision = std::move(supervision)](
               const std::string& path, const std::vector<std::string>& arguments, double timeout) {
        return run(path, arguments, timeout, supervision);
    };
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
