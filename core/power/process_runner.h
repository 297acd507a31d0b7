// The one way outside tools are run.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "core/model/scope_error.h"
#include "core/power/tool_keeper.h"

namespace ferovane {

struct CommandResult {
    std::int32_t status = 0;  // exit status; the signal's number for a tool that died of one
    std::string output;       // standard output and error as written, valid UTF-8
    bool outputLost = false;  // the disk is full: some of it may be missing

    bool operator==(const CommandResult&) const = default;
};

// How a rule runs a tool: absolute path, arguments (no shell reads them), time-out in seconds.
using ToolRunner = std::function<CommandResult(
    const std::string& path, const std::vector<std::string>& arguments, double timeout)>;

// The work was given up because its process is to end. What it has changed is to be put back.
class WorkStopped : public ScopeError {
public:
    WorkStopped() : ScopeError("会话正在结束，操作已中止", ResultCode::ending) {}
};

namespace ProcessRunner {

// Who watches over a tool, and within which limits.
struct Supervision {
    ToolKeeper* keeper = nullptr;         // told of the tool; null: nobody is
    std::function<bool()> stop = {};      // true once the work is to be given up; empty: never
    double graceSeconds = 2;              // from asking a late tool to end until it is killed
    std::size_t outputBytes = 1 << 20;    // output beyond this is dropped: it goes into a message
    std::size_t writtenBytes = 16 << 20;  // a tool that writes more than this is killed
};

// Runs a tool to its end and returns what it said. Sleep of the machine does not count towards the
// time-out. Nothing of the tool's process group survives the call, and no file, descriptor or
// unreaped process stays behind, however it ends; one that the kernel does not let die is left to
// the end of this process. Throws when the output file cannot be made, the tool cannot be started,
// the keeper does not take it, the time is up, it writes without end, or a stop is wished for
// (WorkStopped, also before the start); the output is lost then. May be called from several threads
// at once; signals do not interrupt it.
CommandResult run(const std::string& path, const std::vector<std::string>& arguments,
                  double timeout, const Supervision& supervision = {});

// The same as a rule is given it.
ToolRunner runner(Supervision supervision = {});

// The text as one word of a POSIX shell.
std::string shellQuote(std::string_view text);

// The text as a double-quoted AppleScript literal.
std::string appleScriptString(std::string_view text);

}  // namespace ProcessRunner

}  // namespace ferovane
