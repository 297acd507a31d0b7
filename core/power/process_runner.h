// The one way outside tools are run.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace ferovane {

struct CommandResult {
    std::int32_t status = 0;  // exit status; the signal's number for a tool that died of one
    std::string output;       // standard output and error as written, valid UTF-8

    bool operator==(const CommandResult&) const = default;
};

// How a rule runs a tool: absolute path, arguments (no shell reads them), time-out in seconds.
using ToolRunner = std::function<CommandResult(
    const std::string& path, const std::vector<std::string>& arguments, double timeout)>;

namespace ProcessRunner {

struct Limits {
    double graceSeconds = 2;            // from asking a late tool to end until it is killed
    std::size_t outputBytes = 1 << 20;  // output beyond this is dropped: it ends up in a message
};

// Runs a tool to its end and returns what it said. Sleep of the machine does not count towards the
// time-out. Nothing of the tool's process group survives the call, and no file, descriptor or
// unreaped process stays behind, however it ends. Throws when the output file cannot be made, the
// tool cannot be started, or the time is up (the output is lost then). May be called from several
// threads at once; signals do not interrupt it.
CommandResult run(const std::string& path, const std::vector<std::string>& arguments,
                  double timeout, const Limits& limits = {});

// The text as one word of a POSIX shell.
std::string shellQuote(std::string_view text);

// The text as a double-quoted AppleScript literal.
std::string appleScriptString(std::string_view text);

}  // namespace ProcessRunner

}  // namespace ferovane
