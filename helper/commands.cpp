#include "helper/commands.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "core/fan/fan_keys.h"
#include "core/model/scope_error.h"
#include "helper/control_session.h"
#include "helper/fan_commands.h"
#include "helper/probe_commands.h"
#include "helper/standard_streams.h"
#include "helper/turbo_commands.h"

namespace ferovane {
namespace {

using Arguments = std::vector<std::string>;

constexpr std::size_t kWordAlone = 2;  // the program path and the command word
constexpr double kTestFanSeconds = 5.0;

constexpr std::string_view kPrivilegeMessage = "硬件控制需要管理员授权；监测不需要管理员权限。";
constexpr const char* kUsageMessage =
    "允许的命令：probe、cooling、profile、auto、turbo-disable、turbo-enable";
constexpr const char* kArgumentMessage = "无效参数";

struct PrivilegedCommand {
    std::string_view word;
    bool takesArguments;
    void (*run)(const Arguments&, const HelperEnvironment&);
};

constexpr std::array<PrivilegedCommand, 6> kPrivilegedCommands{{
    {"cooling", true,
     [](const Arguments& args, const HelperEnvironment& environment) {
         coolFans(args, FanLimits::kCoolingSeconds, environment);
     }},
    {"test-fan", true,
     [](const Arguments& args, const HelperEnvironment& environment) {
         coolFans(args, kTestFanSeconds, environment);
     }},
    {"profile", true, runProfile},
    {"auto", false,
     [](const Arguments&, const HelperEnvironment& environment) { returnFans(environment); }},
    {"turbo-disable", false,
     [](const Arguments&, const HelperEnvironment& environment) { disableTurbo(environment); }},
    {"turbo-enable", false,
     [](const Arguments&, const HelperEnvironment& environment) { enableTurbo(environment); }},
}};

void runPrivileged(const Arguments& args, const HelperEnvironment& environment) {
    if (args.size() < kWordAlone) {
        throw ScopeError(kUsageMessage);
    }
    const auto command =
        std::find_if(kPrivilegedCommands.begin(), kPrivilegedCommands.end(),
                     [&](const PrivilegedCommand& c) { return c.word == args[1]; });
    if (command == kPrivilegedCommands.end()) {
        throw ScopeError(kUsageMessage);
    }
    if (!command->takesArguments && args.size() != kWordAlone) {
        throw ScopeError(kArgumentMessage);
    }
    command->run(args, environment);
}

// The order decides what a caller without privileges learns: a misspelt word gets the privilege
// message, not the list of commands.
void dispatch(const Arguments& args, const HelperEnvironment& environment) {
    if (args.size() == kServeArguments && args[1] == "serve") {
        runControlSession(args, environment);
    } else if (args.size() == kWordAlone && args[1] == "fan-probe") {
        printFanKeys(environment);
    } else if (args.size() == kWordAlone && args[1] == "probe") {
        printSnapshot(environment);
    } else if (environment.effectiveUser != 0) {
        throw ScopeError(std::string(kPrivilegeMessage));
    } else {
        runPrivileged(args, environment);
    }
}

}  // namespace

int runHelper(const std::vector<std::string>& args, const HelperEnvironment& environment) noexcept {
    try {
        dispatch(args, environment);
        return 0;
    } catch (const std::exception& error) {
        reportLine(environment.errorDescriptor, userText(error));
        return 1;
    }
}

}  // namespace ferovane
