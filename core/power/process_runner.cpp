#include "core/power/process_runner.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <array>

#include "core/model/scope_error.h"
#include "core/power/child_process.h"
#include "core/power/tool_output.h"
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
        // The system's own words for it would be in English.
        throw ScopeError("无法启动 " + path + "（错误 " + std::to_string(error) + "）");
    }
    return pid;
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
    return {*status, readToolOutput(output.number(), limits.outputBytes)};
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
